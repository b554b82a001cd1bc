#pragma once

#include <string>

namespace testsupport {

/// The bytes in Base64, by the definition: six bits a character, padded, in lines of 76 with an LF between them and
/// none after the last. Shares nothing with the library.
std::string base64Lines(std::string const& bytes);

/// `count` bytes without a pattern, every value among them; always the same for the same count.
std::string mixedBytes(std::size_t count);

} // namespace testsupport
