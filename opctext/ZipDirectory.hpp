#pragma once

#include <cstdint>
#include <istream>
#include <string>
#include <vector>

namespace opctext {

/// One entry of the directory at the end of a ZIP file.
struct ZipEntry {
    std::string name; ///< its bytes as they are
    std::uint64_t compressedSize = 0;
    std::uint64_t size = 0;         ///< as declared
    std::uint64_t headerOffset = 0; ///< of its local header, from the start of the file
    std::uint64_t index = 0;        ///< in the directory
};

/// Reads the directory of a ZIP file for what the ZIP library doesn't tell: names with all their bytes, and where the
/// members lie. Throws `Failure`, its message beginning with the path, for a file without a directory and for members
/// that overlap each other or the directory.
std::vector<ZipEntry> readZipDirectory(std::istream& file, std::string const& path);

} // namespace opctext
