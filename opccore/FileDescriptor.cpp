#include <opccore/FileDescriptor.hpp>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

#include <opccore/SystemError.hpp>

namespace opc::detail {

namespace {

/// Repeats a system call for as long as signals interrupt it.
template <class Call>
auto uninterrupted(Call call) -> decltype(call()) {
    for (;;) {
        auto const result = call();
        if (result != -1 || errno != EINTR)
            return result;
    }
}

} // namespace

FileDescriptor::FileDescriptor(std::string path, int flags, mode_t permissions)
    : path_(std::move(path)),
      descriptor_(uninterrupted([&] { return ::open(path_.c_str(), flags | O_CLOEXEC, permissions); })) {
    if (descriptor_ == -1)
        throwSystemError("Could not open", path_);
}

FileDescriptor::FileDescriptor(FileDescriptor&& other) noexcept
    : path_(std::move(other.path_)),
      descriptor_(std::exchange(other.descriptor_, -1)) {
}

FileDescriptor::~FileDescriptor() {
    if (descriptor_ != -1)
        ::close(descriptor_);
}

struct stat FileDescriptor::status() const {
    struct stat status {};
    if (::fstat(descriptor_, &status) == -1)
        throwSystemError("Could not examine", path_);
    return status;
}

std::size_t FileDescriptor::read(char* buffer, std::size_t count) {
    auto const got = uninterrupted([&] { return ::read(descriptor_, buffer, count); });
    if (got == -1)
        throwSystemError("Could not read", path_);
    return static_cast<std::size_t>(got);
}

void FileDescriptor::write(char const* buffer, std::size_t count) {
    // Kernels cache what one call writes in blocks of memory as large as it. Blocks of megabytes have to be found
    // first, or got from the host of a virtual machine, which makes such a call several times slower.
    constexpr std::size_t MostAtOnce = std::size_t{1} << 18;
    while (count > 0) {
        auto const written = uninterrupted([&] { return ::write(descriptor_, buffer, std::min(count, MostAtOnce)); });
        if (written == -1)
            throwSystemError("Could not write", path_);
        buffer += written;
        count -= static_cast<std::size_t>(written);
    }
}

off_t FileDescriptor::seek(off_t offset, int whence) {
    auto const position = ::lseek(descriptor_, offset, whence);
    if (position == -1)
        throwSystemError("Could not seek in", path_);
    return position;
}

void FileDescriptor::writeAllOf(FileDescriptor& source) {
    // The kernel's own copy shares blocks where the file system can. It refuses some pairs of files, and reports
    // nothing to copy for some that are not empty; the plain loop then goes on where it stopped.
    constexpr std::size_t AtOnce = std::size_t{1} << 30;
    while (uninterrupted(
               [&] { return ::copy_file_range(source.descriptor_, nullptr, descriptor_, nullptr, AtOnce, 0); }) > 0) {
    }
    std::array<char, 65536> block;
    while (std::size_t const count = source.read(block.data(), block.size()))
        write(block.data(), count);
}

void FileDescriptor::sync() {
    // EINVAL: what the file lies on knows no syncing, so there is nothing to wait for.
    if (uninterrupted([&] { return ::fsync(descriptor_); }) == -1 && errno != EINVAL)
        throwSystemError("Could not sync", path_);
}

void FileDescriptor::setPermissions(mode_t permissions) {
    if (uninterrupted([&] { return ::fchmod(descriptor_, permissions); }) == -1)
        throwSystemError("Could not set the permissions of", path_);
}

void FileDescriptor::setOwner(uid_t user, gid_t group) noexcept {
    [[maybe_unused]] auto const refused = ::fchown(descriptor_, user, group);
}

void FileDescriptor::close() {
    // The descriptor is gone whatever close(2) says; after a signal too, so it is never repeated.
    if (::close(std::exchange(descriptor_, -1)) == -1 && errno != EINTR)
        throwSystemError("Could not close", path_);
}

int removeFile(std::string const& path) noexcept {
    auto const remove = [&] { return ::unlink(path.c_str()); };
    int const result = uninterrupted(remove);
    return result == 0 || errno == ENOENT ? result : uninterrupted(remove);
}

} // namespace opc::detail
