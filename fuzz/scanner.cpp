// The two ways of finding the parts of a package text, line by line in a stream and by the markers in memory, against
// the plainest way.

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include <fuzz/support/InputReader.hpp>
#include <fuzz/support/PlainPackage.hpp>
#include <fuzz/support/plainText.hpp>
#include <fuzz/support/readPart.hpp>
#include <fuzz/support/require.hpp>
#include <textpackage/PartIndex.hpp>
#include <textpackage/TextPackageHelpers.hpp>

namespace {

using opc::textpackage::IndexedPart;
using opc::textpackage::TextPackageHelpers::PartBegin;

/// What a scan found; `parts` end as those of a `PlainPackage` do.
struct Scan {
    std::vector<std::string> headerLines;
    std::vector<PartBegin> begins;
    std::vector<std::string> contents; ///< of the parts that ended, their lines joined by LF
    std::string fault;
};

/// Scans a stream, and stops at the end of part number `partsWanted`.
Scan scanStream(std::string const& text, std::size_t partsWanted) {
    Scan scan;
    std::istringstream stream(text);
    std::string content;
    bool hasLines = false;
    scan.fault = fuzz::faultOfReading([&] {
        namespace Scanner = opc::textpackage::TextPackageHelpers;
        Scanner::findPackageBeginMarker(stream, [&](std::string const& line) { scan.headerLines.push_back(line); });
        Scanner::readParts(
            stream,
            [&](PartBegin const& begin) {
                scan.begins.push_back(begin);
                content.clear();
                hasLines = false;
            },
            [&] {
                if (scan.contents.size() < scan.begins.size())
                    scan.contents.push_back(content);
                return scan.contents.size() != partsWanted;
            },
            [&](std::string const& line) {
                content += (hasLines ? "\n" : "") + line;
                hasLines = true;
            });
    });
    return scan;
}

void requireSameFault(std::string const& fault, std::string const& expected) {
    fuzz::require(fault == expected, "the scan fails with \"" + expected + "\", not \"" + fault + "\"");
}

void requireSameParts(Scan const& scan, fuzz::PlainPackage const& expected) {
    fuzz::require(scan.contents.size() == expected.parts.size(), "the stream has as many parts as expected");
    for (std::size_t i = 0; i < expected.parts.size(); ++i) {
        auto const& part = expected.parts[i];
        fuzz::require(scan.begins[i].name == part.name && scan.begins[i].isBase64 == part.isBase64,
                      "the stream tells a part's name and form");
        fuzz::require(scan.contents[i] == fuzz::withLineFeedsAlone(part.stored), "the stream tells the content");
    }
}

void requireSameIndex(std::string const& text, fuzz::PlainPackage const& expected) {
    std::string_view rest = text;
    for (std::size_t line = 0; line <= expected.headerLines.size(); ++line)
        rest.remove_prefix(std::min(rest.find('\n'), rest.size() - 1) + 1);
    std::vector<IndexedPart> parts;
    auto const fault = fuzz::faultOfReading(
        [&] { opc::textpackage::indexParts(rest, [&](IndexedPart const& part) { parts.push_back(part); }); });

    requireSameFault(fault, expected.fault);
    fuzz::require(parts.size() == expected.parts.size(), "the index has as many parts as expected");
    for (std::size_t i = 0; i < parts.size(); ++i) {
        auto const& [begin, contentBegin, contentEnd] = parts[i];
        fuzz::require(begin.name == expected.parts[i].name && begin.isBase64 == expected.parts[i].isBase64,
                      "the index tells a part's name and form");
        fuzz::require(contentBegin <= contentEnd && contentEnd <= rest.size(), "a part lies in the text");
        fuzz::require(rest.substr(contentBegin, contentEnd - contentBegin) == expected.parts[i].stored,
                      "the index tells where the content is");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::string const text(fuzz::asText(data, size));
    auto const expected = fuzz::readPlainly(text);

    auto const scan = scanStream(text, 0);
    requireSameFault(scan.fault, expected.fault);
    fuzz::require(scan.headerLines == expected.headerLines, "the header lines are told");
    requireSameParts(scan, expected);
    bool const hasBegin = text.find("__ZKOPC_PACKAGE_BEGIN__") != std::string::npos;
    if (hasBegin && expected.fault.find("PACKAGE_BEGIN") == std::string::npos)
        requireSameIndex(text, expected);

    auto const partsWanted = size % 8 + 1;
    if (expected.parts.size() >= partsWanted) {
        auto const early = scanStream(text, partsWanted);
        fuzz::require(early.fault.empty() && early.contents.size() == partsWanted,
                      "the scan stops where it is told to");
    }
    return 0;
}
