#pragma once

#include <functional>
#include <string_view>

#include <textpackage/TextPackageHelpers.hpp>

namespace opc::textpackage {

/// The rules by which the lines behind the package-begin line make parts, one line at a time. Where the lines come
/// from, a stream or mapped memory, is the caller's business.
class PartScanner {
public:
    /// The callbacks are those of `TextPackageHelpers::readParts`; a content line comes without its CR.
    PartScanner(std::function<void(TextPackageHelpers::PartBegin const&)> onPartBegin, std::function<bool()> onPartEnd,
                std::function<void(std::string_view)> onContentLine);

    /// Takes the next line, given without its LF; false when the scan is over. Throws as `readParts` does.
    bool take(std::string_view line);

    /// Whether a part is open, in which case only a line that begins with `markerBeginning` can be more than content.
    bool isInPart() const { return inPart_; }

    /// What the part-begin and the package-end markers have in common.
    static constexpr std::string_view markerBeginning = "__ZKOPC_PA";

private:
    std::function<void(TextPackageHelpers::PartBegin const&)> onPartBegin_;
    std::function<bool()> onPartEnd_;
    std::function<void(std::string_view)> onContentLine_;
    bool inPart_ = false;
};

} // namespace opc::textpackage
