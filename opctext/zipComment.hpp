#pragma once

#include <string>

namespace opctext {

/// What the text form of a package remembers of its ZIP form besides the parts. The header text carries it: the comment
/// of the ZIP file, and lines of ours about the content types member, which the text form always calls
/// "/[Content_Types].xml".
struct ZipMemory {
    std::string comment;
    std::string contentTypesName = "[Content_Types].xml"; ///< empty: there was no such member

    /// The header text; see `fromHeader` for the inverse.
    std::string toHeader() const;

    static ZipMemory fromHeader(std::string const& header);
};

/// Whether a text can be the header of a package.
bool isFitForHeader(std::string const& header);

} // namespace opctext
