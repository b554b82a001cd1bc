#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include <opccore/Export.hpp>

namespace foundation::crypto::utils {

/// A failure to encode or decode.
class OPCCORE_EXPORT Exception : public std::runtime_error {
public:
    explicit Exception(std::string const& message);
    Exception(Exception const&) = default;
    Exception& operator=(Exception const&) = default;
    ~Exception() override;
};

/// Decodes standard Base64 (RFC 4648, section 4, with padding), strictly: ASCII white space is skipped anywhere, so
/// that a line keeps its trailing CR; all else throws `Exception` "Unable to decode Base64: " and the reason (a
/// character outside the alphabet, a wrong length, misplaced padding, trailing bits that are not zero), with the
/// offset of the byte at fault, counted from 0.
OPCCORE_EXPORT std::vector<std::uint8_t> base64Decode(std::string const& text);

} // namespace foundation::crypto::utils
