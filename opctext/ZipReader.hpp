#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <opctext/Failure.hpp>
#include <opctext/ZipDirectory.hpp>

struct zip;

namespace opctext {

class PackageFile;

/// How much of a ZIP file is taken in before it is refused.
struct ZipLimits {
    std::uint64_t parts = 100'000;
    std::uint64_t partBytes = std::uint64_t{1} << 30;
    std::uint64_t totalBytes = std::uint64_t{8} << 30;
    std::uint64_t ratio = 600; ///< of inflated to stored bytes, for members of more than 8 MiB
};

/// Reads a ZIP file, trusting nothing that it declares. Throws `Failure`s that name the file and the member.
class ZipReader {
public:
    /// Lifetime: keeps a reference to the file.
    ZipReader(PackageFile const& file, ZipLimits const& limits);

    /// The members but those that only name a folder, in the order of the directory. Their names are safe.
    std::vector<ZipEntry> const& members() const { return members_; }

    /// The comment on the whole file, its bytes as they are.
    std::string comment() const;

    /// The content of a member, which is of the declared length and has the declared checksum.
    std::string read(ZipEntry const& member);

private:
    struct Closer {
        void operator()(zip* archive) const;
    };

    [[noreturn]] void fail(std::string const& reason, ExitStatus status = ExitStatus::NotAPackage) const;
    void requireMember(ZipEntry const& entry) const;
    void requireWithinLimits(ZipEntry const& member) const;

    PackageFile const& file_;
    ZipLimits limits_;
    std::unique_ptr<zip, Closer> archive_;
    std::vector<ZipEntry> members_;
    std::uint64_t totalBytes_ = 0; // read so far
};

} // namespace opctext
