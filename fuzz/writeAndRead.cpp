// Any parts into a new package: what was committed is read back equal, or was refused in words.

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include <fuzz/support/InputReader.hpp>
#include <fuzz/support/PlainPackage.hpp>
#include <fuzz/support/ScratchFolder.hpp>
#include <fuzz/support/plainText.hpp>
#include <fuzz/support/readPart.hpp>
#include <fuzz/support/require.hpp>
#include <opccore/IPhysicalOutputStream.hpp>
#include <textpackage/FilePart.hpp>
#include <textpackage/FilePartInfo.hpp>
#include <textpackage/MemoryPart.hpp>
#include <textpackage/TextFilePhysicalPackage.hpp>
#include <textpackage/TextPackageLightweightReader.hpp>

namespace {

using opc::interfaces::IPhysicalPart;
using opc::interfaces::OpenMode;
using opc::textpackage::FilePart;
using opc::textpackage::FilePartInfo;
using opc::textpackage::TextFilePhysicalPackage;
using opc::textpackage::TextPackageLightweightReader;

constexpr char FileName[] = "package.txt";

struct Part {
    std::string content;
    bool isBinary = false;
};

/// What a package is to be made of. The names are free: what can't stand in a file is asked for as well.
struct Plan {
    std::u16string header;
    std::map<std::u16string, Part> parts;
};

std::u16string readUnits(fuzz::InputReader& input) {
    auto const bytes = input.sizedText();
    if (auto const text = fuzz::utf16Of(bytes))
        return *text;
    std::u16string units; // with lone surrogates, perhaps
    for (std::size_t i = 0; i + 1 < bytes.size(); i += 2)
        units +=
            static_cast<char16_t>(static_cast<unsigned char>(bytes[i]) << 8 | static_cast<unsigned char>(bytes[i + 1]));
    return units;
}

Plan readPlan(std::string_view bytes) {
    fuzz::InputReader input(bytes);
    Plan plan;
    plan.header = readUnits(input);
    while (!input.atEnd()) {
        auto const kind = input.byte();
        auto name = u'/' + readUnits(input);
        if (kind % 8 == 0)
            name = fuzz::ContentTypesName;
        else if (kind % 8 == 1)
            name.insert(0, std::u16string(kind, u'n')); // long, and without "/" before it
        plan.parts[name] = {input.sizedText(), kind % 16 >= 8};
    }
    return plan;
}

/// Whether the format can hold the name, so that it comes back.
bool isStorable(std::u16string const& name) {
    return fuzz::isSurelyUsable(name) && fuzz::utf8Of(name) && name.find_first_of(u" \r\n") == std::u16string::npos &&
           name.rfind(u"/[trash]", 0) != 0;
}

bool areStorable(Plan const& plan) {
    std::vector<std::u16string> names;
    for (auto const& [name, part] : plan.parts) {
        if (!isStorable(name))
            return false;
        names.push_back(name);
    }
    return fuzz::areSurelyUsable(names);
}

/// Writes the package; returns the failure, if there was one.
std::string write(Plan const& plan) {
    return fuzz::failureOf<opc::Exception>([&] {
        TextFilePhysicalPackage package(fuzz::ScratchFolder::get().corePath(FileName));
        package.open(OpenMode::Create);
        package.setTextFileHeader(plan.header);
        for (auto const& [name, part] : plan.parts) {
            auto* const created = package.createPart(name, part.isBinary ? u"application/binary" : u"", FilePartInfo());
            created->getOutputStream()->write(part.content.data(), static_cast<std::int64_t>(part.content.size()));
            dynamic_cast<FilePart&>(*created).close();
        }
        package.close(false);
    });
}

/// Whether something in the plan is refused, as documented.
bool isToBeRefused(Plan const& plan) {
    bool const isHeaderFit = plan.header.rfind(u"PK", 0) != 0 && fuzz::utf8Of(plan.header) &&
                             plan.header.find(u"__ZKOPC_PACKAGE_BEGIN__") == std::u16string::npos &&
                             std::count(plan.header.begin(), plan.header.end(), u'\n') <= 20;
    return !isHeaderFit || std::any_of(plan.parts.begin(), plan.parts.end(), [](auto const& entry) {
        return entry.second.content.find(fuzz::ForbiddenText) != std::string::npos;
    });
}

template <class Package>
void requireSame(Plan const& plan, bool isLight) {
    Package package(fuzz::ScratchFolder::get().corePath(FileName));
    if constexpr (std::is_same_v<Package, TextPackageLightweightReader>) {
        for (auto const& entry : plan.parts)
            package.addRequestedPart(entry.first);
    }
    package.open(OpenMode::Read);
    std::vector<IPhysicalPart*> parts = static_cast<opc::interfaces::IPhysicalPackage&>(package).getParts();
    auto const expectedCount = plan.parts.size() + (plan.parts.count(fuzz::ContentTypesName) == 0 ? 1 : 0);
    fuzz::require(isLight || parts.size() + 1 == expectedCount, "as many parts come back as were written");
    parts.push_back(package.getContentTypesPart());
    for (auto* const part : parts) {
        auto const entry = plan.parts.find(part->getName());
        bool const isOurs = entry != plan.parts.end();
        fuzz::require(isOurs || part->getName() == fuzz::ContentTypesName, "the parts come back under their names");
        Part const expected = isOurs ? entry->second : Part{};
        auto content = expected.content;
        if (!expected.isBinary && !content.empty() && content.back() == '\r')
            content.pop_back(); // documented: a text part must not end so
        if (!expected.isBinary && isLight)
            content = fuzz::withLineFeedsAlone(content);
        fuzz::require(fuzz::readPart(*part).content == content, "the content comes back as it was written");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    auto const plan = readPlan(fuzz::asText(data, size));
    auto const& scratch = fuzz::ScratchFolder::get();
    scratch.remove(FileName);

    auto const fault = write(plan);

    if (isToBeRefused(plan) || !fault.empty()) {
        fuzz::require(!fault.empty() || !areStorable(plan), "what can't be stored is refused");
        fuzz::require(isToBeRefused(plan) || !areStorable(plan), "what can be stored is written: " + fault);
        fuzz::require(fault.empty() || !scratch.read(FileName), "what is refused leaves no file");
    } else if (areStorable(plan)) {
        requireSame<TextFilePhysicalPackage>(plan, false);
        requireSame<TextPackageLightweightReader>(plan, true);
    }
    scratch.remove(FileName);
    scratch.requireNothingLeft(0);
    return 0;
}
