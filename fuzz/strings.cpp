// The conversions of strings, and the paths that names of parts lead to. The bytes of an input are taken as UTF-8, as
// UTF-16, and as two names with an LF between them.

#include <optional>
#include <string>

#include <fuzz/support/InputReader.hpp>
#include <fuzz/support/ScratchFolder.hpp>
#include <fuzz/support/plainText.hpp>
#include <fuzz/support/require.hpp>
#include <opccore/Exception.hpp>
#include <opccore/LocalFileSystemOps.hpp>
#include <opccore/StringConversion.hpp>
#include <opccore/caselessCompare.hpp>
#include <textpackage/FilePart.hpp>
#include <textpackage/FilePartInfo.hpp>
#include <textpackage/TextFilePhysicalPackage.hpp>

namespace {

using opc::detail::makeNativePath;
using opc::detail::toUTF8String;

/// What a conversion gives; none where it refuses the text.
template <class Result, class Conversion>
std::optional<Result> resultOf(Conversion const& conversion, char const* words) {
    std::optional<Result> result;
    auto const fault = fuzz::failureOf<opc::Exception>([&] { result = conversion(); });
    fuzz::require(fault.empty() || fault.rfind(words, 0) == 0, "a failure says what it is, not " + fault);
    return result;
}

void checkUtf8(std::string const& text) {
    auto const strict =
        resultOf<std::u16string>([&] { return opc::toString(text, true); }, "Ill-formed UTF-8 at byte ");
    fuzz::require(strict == fuzz::utf16Of(text), "well-formed UTF-8 is converted, all else refused");
    if (strict)
        fuzz::require(toUTF8String(*strict, true) == text, "UTF-8 survives the round trip");
    auto const lenient = opc::toString(text, false);
    fuzz::require(!strict || lenient == *strict, "what is well-formed is the same without strictness");
    fuzz::require(fuzz::utf8Of(lenient).has_value(), "what replaces ill-formed UTF-8 is well-formed");
}

void checkUtf16(std::u16string const& text) {
    auto const strict = resultOf<std::string>([&] { return toUTF8String(text, true); }, "Ill-formed UTF-16 at unit ");
    fuzz::require(strict == fuzz::utf8Of(text), "well-formed UTF-16 is converted, all else refused");
    if (strict)
        fuzz::require(opc::toString(*strict, true) == text, "UTF-16 survives the round trip");
    auto const lenient = toUTF8String(text, false);
    fuzz::require(!strict || lenient == *strict, "what is well-formed is the same without strictness");
    fuzz::require(fuzz::utf16Of(lenient).has_value(), "what replaces a lone surrogate is well-formed");
    auto const shown = opc::toUDEString(text);
    fuzz::require(fuzz::utf16Of(shown).has_value() && shown.find('\0') == std::string::npos, "a message can show it");
}

void checkNativePath(std::u16string const& path) {
    auto const native = resultOf<std::string>([&] { return makeNativePath(path); }, "A path must not hold NUL: ");
    fuzz::require(native.has_value() == (path.find(u'\0') == std::u16string::npos), "a NUL is refused, nothing else");
    if (!native)
        return;
    std::size_t begin = 0;
    for (std::size_t end = 0; end != std::string::npos; begin = end + 1) {
        end = native->find('/', begin);
        fuzz::require(std::min(end, native->size()) - begin <= 255, "a component fits into a file system");
    }
    auto const again = fuzz::utf16Of(*native);
    fuzz::require(!again || makeNativePath(*again) == *native, "a native path is its own native path");
}

int sign(int number) {
    return (number > 0) - (number < 0);
}

void checkOrder(std::u16string const& first, std::u16string const& second) {
    auto const expected = fuzz::lowerCase(first).compare(fuzz::lowerCase(second));
    fuzz::require(sign(opc::caselessCompare(first, second)) == sign(expected), "names are compared in lower case");
    fuzz::require(sign(opc::caselessCompare(second, first)) == -sign(expected), "the order is the same from behind");
}

/// Where the file of a part is; none where its name is refused.
std::optional<std::string> fileOf(opc::interfaces::IPhysicalPart const& part) {
    auto const& filePart = dynamic_cast<opc::textpackage::FilePart const&>(part);
    return resultOf<std::string>([&] { return makeNativePath(filePart.getModifiedFullPath()); },
                                 "Not a usable part name: ");
}

void checkFiles(std::u16string const& first, std::u16string const& second) {
    opc::textpackage::TextFilePhysicalPackage package(fuzz::ScratchFolder::get().corePath("package.txt"));
    package.open(opc::interfaces::OpenMode::Create);
    auto const root = makeNativePath(package.getModifiedPackageRoot()) + '/';
    auto const* const firstPart = package.createPart(first, u"", opc::textpackage::FilePartInfo());
    auto const* const secondPart = package.createPart(second, u"", opc::textpackage::FilePartInfo());
    auto const firstFile = fileOf(*firstPart);
    auto const secondFile = fileOf(*secondPart);
    for (auto const& file : {firstFile, secondFile}) {
        bool const isInside = !file || (file->rfind(root, 0) == 0 && (*file + '/').find("/../") == std::string::npos);
        fuzz::require(isInside, "the file of a part lies in the folder of the package");
    }
    if (first != second && firstFile)
        fuzz::require(firstFile != secondFile, "two parts have two files");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::string const text(fuzz::asText(data, size));
    std::u16string units;
    for (std::size_t i = 0; i + 1 < size; i += 2)
        units += static_cast<char16_t>(data[i] | data[i + 1] << 8);

    checkUtf8(text);
    checkUtf16(units);
    checkNativePath(units);
    checkNativePath(opc::toString(text, false));
    for (auto const& names : {opc::toString(text, false), units}) {
        auto const separator = names.find(u'\n');
        if (separator == std::u16string::npos)
            continue;
        checkOrder(names.substr(0, separator), names.substr(separator + 1));
        checkFiles(names.substr(0, separator), names.substr(separator + 1));
    }
    return 0;
}
