#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace testsupport {

constexpr std::uint16_t Stored = 0;
constexpr std::uint16_t Deflated = 8;
constexpr std::uint16_t EncryptedFlag = 1;
constexpr std::uint16_t DescriptorFlag = 1 << 3; ///< checksum and sizes stand behind the data
constexpr std::uint16_t Utf8Flag = 1 << 11;

/// A member of a ZIP file. Whatever is set of the optional fields stands in the file instead of the truth.
struct ZipMember {
    std::string name; ///< its bytes
    std::string content;
    std::uint16_t method = Deflated;
    std::uint16_t flags = 0;
    std::string extra = {}; ///< the extra fields, in the directory and before the data
    std::optional<std::string> data = {};
    std::optional<std::string> localName = {}; ///< before the data
    std::optional<std::uint32_t> checksum = {};
    std::optional<std::uint32_t> compressedSize = {};
    std::optional<std::uint32_t> size = {};
    std::optional<std::uint32_t> headerOffset = {};
};

/// What else there is to a ZIP file.
struct ZipLayout {
    std::string comment = {};
    std::string prefix = {}; ///< bytes before the first member; all offsets count them
    std::string gap = {};    ///< bytes between the last member and the directory
    bool is64Bit = false;    ///< sizes, offsets and counts stand in the 64-bit records
    std::optional<std::uint16_t> count = {};
    std::optional<std::uint32_t> directoryOffset = {};
    std::optional<std::uint32_t> directorySize = {};
};

/// The bytes of a ZIP file, right or wrong. Shares nothing with the ZIP library.
std::string zipBytes(std::vector<ZipMember> const& members, ZipLayout const& layout = {});

/// The bytes of a ZIP file as the ZIP library writes it: names, contents, methods and the comment, with the clock's
/// time.
std::string libraryZipBytes(std::vector<ZipMember> const& members, std::string const& comment = "");

/// A content in deflate form, as small as can be.
std::string deflated(std::string_view content);

/// A member as a reader finds it.
struct StoredMember {
    std::string name;
    std::string content;
    std::uint16_t method = 0;
    std::uint16_t flags = 0;
    std::uint16_t time = 0; ///< in the form of DOS
    std::uint16_t date = 0;
    std::uint32_t attributes = 0; ///< the external ones
    std::string extra;            ///< in the directory
    std::string localExtra;       ///< before the data
    std::string comment;
};

/// What is in a ZIP file, in the order of its directory.
struct StoredZip {
    std::vector<StoredMember> members;
    std::string comment;

    std::vector<std::string> names() const;

    /// The contents by name, without the members that only name a folder.
    std::map<std::string, std::string> contents() const;
};

/// Takes a ZIP file apart, without the ZIP library. Throws `std::runtime_error` for what is wrong with it.
StoredZip readZip(std::string_view bytes);

/// The files in a folder that begin like a ZIP file, sorted.
std::vector<std::filesystem::path> zipFilesIn(std::filesystem::path const& folder);

/// Waits for a hidden file in a folder that ends in `ending`, and changes the byte where `bytes` last begin in it: what
/// a bad disk does to a result that is not in its place yet. Returns false where no such file comes.
bool spoilHiddenFile(std::filesystem::path const& folder, std::string const& ending, std::string const& bytes);

/// What the ZIP library, told to look closely, has against a ZIP file; empty where it has nothing.
std::string faultOfZip(std::string const& bytes);

} // namespace testsupport
