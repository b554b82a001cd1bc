#pragma once

#include <cstdint>
#include <memory>
#include <streambuf>
#include <string>
#include <string_view>

#include <boost/iostreams/device/mapped_file.hpp>

#include <textpackage/Export.hpp>

namespace opc::textpackage {

/// Read-only view of one package file, mapped once; hands out stream buffers over its bytes, without copying.
///
/// Ownership: each buffer is the caller's; none may outlive this object.
/// Units:     byte offsets from the start of the file, begin inclusive, end exclusive.
/// Buffers:   for reading and seeking within their range; a seek outside it throws Boost's "bad seek", a write
///            Boost's "no write access".
/// Threads:   no locks; each buffer has its own position.
class TEXTPACKAGE_EXPORT TextFileBuffer {
public:
    /// Maps the whole file. Passes on the exception of the mapping, a `std::ios_base::failure`.
    explicit TextFileBuffer(std::u16string const& path);

    TextFileBuffer(TextFileBuffer const&) = delete;
    TextFileBuffer& operator=(TextFileBuffer const&) = delete;

    /// Never throws.
    ~TextFileBuffer();

    /// A buffer over the bytes from `begin` up to `end`, at its first byte, which is its position 0.
    /// Requires begin <= end <= file size, which is not checked: the scan recorded both.
    std::unique_ptr<std::streambuf> getStreambuf(std::uint64_t begin, std::uint64_t end);

    /// A buffer over the whole file.
    std::unique_ptr<std::streambuf> getFullStreambuf();

    /// The mapped bytes themselves.
    std::string_view content() const;

private:
    std::u16string path_;
    boost::iostreams::mapped_file_source mapping_;
};

} // namespace opc::textpackage
