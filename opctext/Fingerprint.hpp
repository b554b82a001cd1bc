#pragma once

#include <cstdint>
#include <string_view>

#include <zlib.h>

namespace opctext {

/// Length and CRC-32 of a content, which tell whether what was read back is what was written.
struct Fingerprint {
    std::uint64_t size = 0;
    uLong checksum = ::crc32_z(0, nullptr, 0);

    void add(std::string_view bytes) {
        size += bytes.size();
        checksum = ::crc32_z(checksum, reinterpret_cast<Bytef const*>(bytes.data()), bytes.size());
    }

    bool operator==(Fingerprint const& other) const { return size == other.size && checksum == other.checksum; }
};

} // namespace opctext
