#include <textpackage/TextPackageHelpers.hpp>

#include <istream>
#include <string_view>

#include <opccore/Exception.hpp>
#include <opccore/StringConversion.hpp>

namespace opc::textpackage::TextPackageHelpers {

namespace {

// A header text with 20 line breaks is 21 lines once it is written: the reader takes one more than a header may have.
constexpr int MostLinesBeforePackageBegin = 21;

constexpr std::string_view Base64Flag = "BASE64";

bool beginsWith(std::string const& line, std::string const& marker) {
    return line.compare(0, marker.size(), marker) == 0;
}

void removeTrailingCarriageReturn(std::string& line) {
    if (!line.empty() && line.back() == '\r')
        line.pop_back();
}

PartBegin parsePartBegin(std::string const& line) {
    // The character after the marker is not looked at. A line that ends with the marker throws std::out_of_range here,
    // which is meant to reach the caller as it is.
    auto const rest = line.substr(getPartSeparator().size() + 1);
    auto const space = rest.find(' ');
    bool const isBase64 = space != std::string::npos && rest.substr(space + 1) == Base64Flag;
    return {toString(rest.substr(0, space), true), isBase64};
}

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
        if (beginsWith(line, getPackageBegin()))
            return;
        if (headerLines == MostLinesBeforePackageBegin)
            throw Exception("Didn't find ZKOPC_PACKAGE_BEGIN marker");
        onHeaderLine(line);
    }
    throw Exception("Reached end of file without finding ZKOPC_PACKAGE_BEGIN marker");
}

void readParts(std::istream& stream, std::function<void(PartBegin const&)> onPartBegin, std::function<bool()> onPartEnd,
               std::function<void(std::string const&)> onContentLine) {
    bool inPart = false;
    std::string line;
    while (std::getline(stream, line)) {
        removeTrailingCarriageReturn(line);
        if (line == getPackageEnd()) {
            onPartEnd();
            return;
        }
        if (beginsWith(line, getPartSeparator())) {
            if (inPart && !onPartEnd())
                return;
            onPartBegin(parsePartBegin(line));
            inPart = true;
        } else if (inPart) {
            onContentLine(line);
        } else if (!line.empty()) {
            throw Exception("Didn't find ZKOPC_PART_BEGIN marker");
        }
    }
}

} // namespace opc::textpackage::TextPackageHelpers
