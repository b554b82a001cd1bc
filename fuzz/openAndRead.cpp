// Opens a package text for reading, reads all of it, and compares with the plain reading and with the light reader.

#include <map>
#include <set>
#include <string>
#include <vector>

#include <fuzz/support/InputReader.hpp>
#include <fuzz/support/PlainPackage.hpp>
#include <fuzz/support/ScratchFolder.hpp>
#include <fuzz/support/plainText.hpp>
#include <fuzz/support/readPart.hpp>
#include <fuzz/support/require.hpp>
#include <textpackage/FilePart.hpp>
#include <textpackage/MemoryPart.hpp>
#include <textpackage/TextFilePhysicalPackage.hpp>
#include <textpackage/TextPackageLightweightReader.hpp>

namespace {

using opc::interfaces::IPhysicalPart;
using opc::interfaces::OpenMode;
using opc::textpackage::FilePart;
using opc::textpackage::TextFilePhysicalPackage;
using opc::textpackage::TextPackageLightweightReader;

using Contents = std::map<std::u16string, fuzz::ReadResult>;

template <class Package>
std::vector<IPhysicalPart*> allParts(Package& package) {
    auto parts = static_cast<opc::interfaces::IPhysicalPackage&>(package).getParts();
    parts.push_back(package.getContentTypesPart());
    return parts;
}

std::string faultToExpect(std::string const& text, fuzz::PlainPackage const& plain) {
    if (text.empty())
        return "Could not create TextFileBuffer";
    for (auto const& line : plain.headerLines) {
        if (!fuzz::utf16Of(line))
            return fuzz::IllFormed;
    }
    if (plain.fault.empty() && plain.last().count(fuzz::ContentTypesName) == 0)
        return "Content types stream does not exist";
    return plain.fault;
}

/// Whether a part of a temporary file of its own may be refused for its name. The library refuses less.
bool mayBeRefused(fuzz::PlainPart const& part, bool areNamesUsable) {
    return part.isBase64 && (!areNamesUsable || part.holdsForbiddenText());
}

Contents readThroughPackage(TextFilePhysicalPackage& package, fuzz::PlainPackage const& plain) {
    auto const expected = plain.last();
    Contents contents;
    std::vector<std::u16string> binaryNames;
    for (auto const& [name, part] : expected) {
        if (part.isBase64)
            binaryNames.push_back(name);
    }
    bool const areNamesUsable = fuzz::areSurelyUsable(binaryNames);
    auto const parts = allParts(package);
    fuzz::require(parts.size() == expected.size(), "the package has as many parts as expected");
    for (int round = 0; round < 2; ++round) { // the second time, binary parts have a file already
        for (auto* const part : parts) {
            auto const entry = expected.find(part->getName());
            fuzz::require(entry != expected.end(), "the package has the parts that it should");
            fuzz::require(dynamic_cast<FilePart&>(*part).isBinary() == entry->second.isBase64, "the form is told");
            auto const read = fuzz::readPart(*part);
            bool const isRefused = !read.content && mayBeRefused(entry->second, areNamesUsable);
            fuzz::require(isRefused || read.content == entry->second.content(),
                          "the package gives the content or refuses it: " + read.fault);
            contents[part->getName()] = read;
            dynamic_cast<FilePart&>(*part).close(); // there may be more parts than a process may have files open
        }
    }
    return contents;
}

/// What both give of a part must be the same, but for the CRs that the light reader takes away.
void requireSameInLightReader(std::u16string const& path, fuzz::PlainPackage const& plain, Contents const& contents) {
    auto const expected = plain.last();
    TextPackageLightweightReader reader(path);
    for (auto const& [name, part] : expected)
        reader.addRequestedPart(name);
    if (!fuzz::faultOfReading([&] { reader.open(OpenMode::Read); }).empty())
        return; // which the target of the light reader looks at
    for (auto* const part : allParts(reader)) {
        auto const entry = contents.find(part->getName());
        if (entry == contents.end() || !entry->second.content)
            continue;
        bool const isText = !expected.at(part->getName()).isBase64;
        auto const content = isText ? fuzz::withLineFeedsAlone(*entry->second.content) : *entry->second.content;
        fuzz::require(fuzz::readPart(*part).content == content, "both readers give the same");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::string const text(fuzz::asText(data, size));
    auto const& scratch = fuzz::ScratchFolder::get();
    scratch.write("package.txt", text);
    auto const plain = fuzz::readPlainly(text);
    auto const expectedFault = faultToExpect(text, plain);
    {
        TextFilePhysicalPackage package(scratch.corePath("package.txt"));
        auto const fault = fuzz::faultOfReading([&] { package.open(OpenMode::Read); });
        fuzz::require(fault == expectedFault, "open fails with \"" + expectedFault + "\", not \"" + fault + "\"");
        fuzz::require(package.isOpen() == fault.empty(), "the package is open where it did not fail");
        if (fault.empty()) {
            auto const contents = readThroughPackage(package, plain);
            bool const areNamesDistinct = plain.last().size() == plain.parts.size();
            if (areNamesDistinct)
                requireSameInLightReader(scratch.corePath("package.txt"), plain, contents);
        }
    }
    fuzz::require(scratch.read("package.txt") == text, "reading leaves the file as it was");
    scratch.requireNothingLeft(1);
    return 0;
}
