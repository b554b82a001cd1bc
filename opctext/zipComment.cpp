#include <opctext/zipComment.hpp>

#include <algorithm>
#include <string_view>

#include <utf8.h>

#include <textpackage/TextPackageHelpers.hpp>

namespace opctext {

namespace {

constexpr std::string_view OtherName = "opctext: in the ZIP file the content types part is called ";
constexpr std::string_view NoContentTypes = "opctext: in the ZIP file there is no content types part";

/// Where the last line of a text begins.
std::size_t lastLineOf(std::string const& text) {
    return text.rfind('\n') + 1; // npos + 1 is the beginning
}

bool isOurs(std::string_view line) {
    return line == NoContentTypes || line.substr(0, OtherName.size()) == OtherName;
}

} // namespace

std::string ZipMemory::toHeader() const {
    std::string line;
    if (contentTypesName.empty())
        line = NoContentTypes;
    else if (contentTypesName != ZipMemory().contentTypesName || isOurs(comment.substr(lastLineOf(comment))))
        line = std::string(OtherName) + contentTypesName;
    return comment + (comment.empty() || line.empty() ? "" : "\n") + line;
}

ZipMemory ZipMemory::fromHeader(std::string const& header) {
    ZipMemory memory;
    memory.comment = header;
    auto const begin = lastLineOf(header);
    auto const line = header.substr(begin);
    if (!isOurs(line))
        return memory;
    memory.contentTypesName = line == NoContentTypes ? "" : line.substr(OtherName.size());
    memory.comment.erase(begin == 0 ? 0 : begin - 1);
    return memory;
}

bool isFitForHeader(std::string const& header) {
    namespace Format = opc::textpackage::TextPackageHelpers;
    auto const lineBreaks = std::count(header.begin(), header.end(), '\n');
    return utf8::is_valid(header.begin(), header.end()) && header.compare(0, 2, "PK") != 0 &&
           header.find(Format::getPackageBegin()) == std::string::npos && header.find('\0') == std::string::npos &&
           lineBreaks <= Format::getMaximumHeaderLines();
}

} // namespace opctext
