#include <textpackage/PartScanner.hpp>

#include <string>
#include <utility>

#include <opccore/Exception.hpp>
#include <opccore/StringConversion.hpp>

namespace opc::textpackage {

namespace {

constexpr std::string_view Base64Flag = "BASE64";

std::string_view withoutTrailingCarriageReturn(std::string_view line) {
    bool const hasOne = !line.empty() && line.back() == '\r';
    return line.substr(0, line.size() - (hasOne ? 1 : 0));
}

bool beginsWith(std::string_view line, std::string_view marker) {
    return line.substr(0, marker.size()) == marker;
}

TextPackageHelpers::PartBegin parsePartBegin(std::string_view line) {
    // The character after the marker is not looked at. A line that ends with the marker throws std::out_of_range here,
    // which is meant to reach the caller as it is.
    auto const rest = line.substr(TextPackageHelpers::getPartSeparator().size() + 1);
    auto const space = rest.find(' ');
    bool const isBase64 = space != std::string_view::npos && rest.substr(space + 1) == Base64Flag;
    return {toString(std::string(rest.substr(0, space)), true), isBase64};
}

} // namespace

PartScanner::PartScanner(std::function<void(TextPackageHelpers::PartBegin const&)> onPartBegin,
                         std::function<bool()> onPartEnd, std::function<void(std::string_view)> onContentLine)
    : onPartBegin_(std::move(onPartBegin)),
      onPartEnd_(std::move(onPartEnd)),
      onContentLine_(std::move(onContentLine)) {
}

bool PartScanner::take(std::string_view line) {
    line = withoutTrailingCarriageReturn(line);
    if (line == TextPackageHelpers::getPackageEnd()) {
        onPartEnd_();
        return false;
    }
    if (beginsWith(line, TextPackageHelpers::getPartSeparator())) {
        if (inPart_ && !onPartEnd_())
            return false;
        onPartBegin_(parsePartBegin(line));
        inPart_ = true;
    } else if (inPart_) {
        onContentLine_(line);
    } else if (!line.empty()) {
        throw Exception("Didn't find ZKOPC_PART_BEGIN marker");
    }
    return true;
}

} // namespace opc::textpackage
