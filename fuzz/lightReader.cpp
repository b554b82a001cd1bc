// The light reader against what docs/format.md says it keeps. An input is the names to ask for, a line each, then a
// line "%%" and the package text.

#include <algorithm>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <fuzz/support/InputReader.hpp>
#include <fuzz/support/PlainPackage.hpp>
#include <fuzz/support/ScratchFolder.hpp>
#include <fuzz/support/plainText.hpp>
#include <fuzz/support/readPart.hpp>
#include <fuzz/support/require.hpp>
#include <opccore/Exception.hpp>
#include <textpackage/MemoryPart.hpp>
#include <textpackage/TextPackageLightweightReader.hpp>

namespace {

using opc::interfaces::OpenMode;
using opc::textpackage::TextPackageLightweightReader;

/// What the light reader is to keep, and how the scan ends.
struct Kept {
    std::map<std::u16string, fuzz::PlainPart> parts;
    std::string fault;
};

bool beginsWith(std::u16string const& text, char16_t const* beginning) {
    return text.rfind(beginning, 0) == 0;
}

/// The rules of the reader, which counts on the order that a writer gives to the parts.
Kept keepPlainly(fuzz::PlainPackage const& package, std::vector<std::u16string> requests) {
    for (auto& request : requests)
        request = fuzz::lowerCase(request);
    std::sort(requests.begin(), requests.end());
    std::size_t nextRequest = 0;
    bool hasStarted = false;
    Kept kept;
    for (auto const& part : package.parts) {
        auto const name = fuzz::lowerCase(part.name);
        bool isKept = name != u"/[trash]" && (kept.parts.size() < 3 || beginsWith(name, u"/metadata/"));
        if (name != u"/[trash]" && !isKept && !beginsWith(name, u".rels")) {
            hasStarted = true;
            while (nextRequest < requests.size() && requests[nextRequest] < name)
                ++nextRequest;
            isKept = nextRequest < requests.size() && requests[nextRequest] == name;
            nextRequest += isKept ? 1 : 0;
        }
        if (isKept)
            kept.parts[part.name] = part;
        if (hasStarted && nextRequest == requests.size())
            break; // before the next part-begin line is looked at
        if (&part == &package.parts.back())
            kept.fault = package.fault;
    }
    if (package.parts.empty())
        kept.fault = package.fault;
    if (kept.fault.empty() && kept.parts.count(fuzz::ContentTypesName) == 0)
        kept.fault = "Content types stream does not exist";
    return kept;
}

void requireSameParts(TextPackageLightweightReader& reader, Kept expected) {
    auto parts = static_cast<opc::interfaces::IPhysicalPackage&>(reader).getParts();
    parts.push_back(reader.getContentTypesPart());
    fuzz::require(parts.size() == expected.parts.size(), "the reader keeps as many parts as expected");
    for (auto* const part : parts) {
        auto const entry = expected.parts.find(part->getName());
        fuzz::require(entry != expected.parts.end(), "the reader keeps the parts that it should");
        auto const stored =
            entry->second.isBase64 ? entry->second.content() : fuzz::withLineFeedsAlone(entry->second.stored);
        fuzz::require(fuzz::readPart(*part).content == stored, "the reader gives the content");
        if (stored) // else the second time goes on behind the line that is no Base64
            fuzz::require(fuzz::readPart(*part).content == stored, "the reader gives the content a second time");
        expected.parts.erase(entry);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    auto const [names, text] = fuzz::splitInTwo(fuzz::asText(data, size));
    auto const& scratch = fuzz::ScratchFolder::get();
    scratch.write("package.txt", text);
    std::vector<std::u16string> requests;
    for (auto const name : fuzz::linesOf(names))
        requests.push_back(fuzz::utf16Of(name).value_or(u"/a"));
    auto const expected = keepPlainly(fuzz::readPlainly(text), requests);

    TextPackageLightweightReader reader(scratch.corePath("package.txt"));
    for (auto const& request : requests)
        reader.addRequestedPart(request);
    auto const fault = fuzz::faultOfReading([&] { reader.open(OpenMode::Read); });
    fuzz::require(fault == expected.fault, "the reader fails with \"" + expected.fault + "\", not \"" + fault + "\"");
    fuzz::require(reader.isOpen() == fault.empty(), "the reader is open where it did not fail");
    if (fault.empty())
        requireSameParts(reader, expected);
    reader.close(false);
    scratch.requireNothingLeft(1);
    return 0;
}
