#pragma once

#include <string>
#include <string_view>

namespace opctext {

/// What no content may hold: the text that the part-begin and the package-end markers have in common.
inline constexpr std::string_view ForbiddenText = "__ZKOPC_PA";

/// Whether bytes are fit to be stored as the text of a part: well-formed UTF-8 without control characters other than
/// TAB, LF and CR, that doesn't end in CR and holds nothing that looks like a marker line.
bool isFitForText(std::string_view bytes);

/// Why no part can hold these bytes in any form; empty where one can. Base64 doesn't hide what is refused: the
/// package couldn't hand the part out again.
std::string findContentFault(std::string_view bytes);

/// A content type that makes the library store a new part as binary, or as text.
std::u16string contentTypeFor(bool binary);

} // namespace opctext
