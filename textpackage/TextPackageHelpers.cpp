#include <textpackage/TextPackageHelpers.hpp>

#include <istream>
#include <string_view>
#include <utility>

#include <opccore/Exception.hpp>
#include <textpackage/PartScanner.hpp>
#include <textpackage/StreamLines.hpp>

namespace opc::textpackage::TextPackageHelpers {

namespace {

// A header text with 20 line breaks is 21 lines once it is written: the reader takes one more than a header may have.
constexpr int MostLinesBeforePackageBegin = 21;

} // namespace

std::int32_t getMaximumHeaderLines() {
    return 20;
}

std::string const& getPackageBegin() {
    static std::string const marker = "__ZKOPC_PACKAGE_BEGIN__";
    return marker;
}

std::string const& getPartSeparator() {
    static std::string const marker = "__ZKOPC_PART_BEGIN__";
    return marker;
}

std::string const& getPackageEnd() {
    static std::string const marker = "__ZKOPC_PACKAGE_END__";
    return marker;
}

void findPackageBeginMarker(std::istream& stream, std::function<void(std::string const&)> onHeaderLine) {
    std::string line;
    for (int headerLines = 0; std::getline(stream, line); ++headerLines) {
        if (line.compare(0, getPackageBegin().size(), getPackageBegin()) == 0)
            return;
        if (headerLines == MostLinesBeforePackageBegin)
            throw Exception("Didn't find ZKOPC_PACKAGE_BEGIN marker");
        onHeaderLine(line);
    }
    throw Exception("Reached end of file without finding ZKOPC_PACKAGE_BEGIN marker");
}

void readParts(std::istream& stream, std::function<void(PartBegin const&)> onPartBegin, std::function<bool()> onPartEnd,
               std::function<void(std::string const&)> onContentLine) {
    std::string line; // a copy: what a callback does with the stream must not touch it
    PartScanner scanner(std::move(onPartBegin), std::move(onPartEnd), [&](std::string_view content) {
        line.resize(content.size()); // the same line, perhaps without its CR
        onContentLine(line);
    });
    StreamLines lines(stream);
    while (lines.next()) {
        line = lines.line();
        if (!scanner.take(line))
            return;
    }
}

} // namespace opc::textpackage::TextPackageHelpers
