#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// What the targets compare the library with: the same rules, written a second time in the plainest way. Nothing of
/// the library is used here.
namespace fuzz {

/// The lines of a text, without their LF; what stands behind the last LF is a line if it is not empty.
std::vector<std::string_view> linesOf(std::string_view text);

/// The text with LF for each CR LF.
std::string withLineFeedsAlone(std::string_view text);

/// UTF-8 to UTF-16; none where the text is ill-formed.
std::optional<std::u16string> utf16Of(std::string_view text);

/// UTF-16 to UTF-8; none where there is a lone surrogate.
std::optional<std::string> utf8Of(std::u16string_view text);

/// ASCII letters in lower case.
std::u16string lowerCase(std::u16string text);

/// The bytes that a text of Base64 with white space in it stands for; none where it is no Base64.
std::optional<std::string> base64Bytes(std::string_view text);

/// The bytes in Base64 lines of 76 characters, without a line break at the end.
std::string base64LinesOf(std::string_view bytes);

} // namespace fuzz
