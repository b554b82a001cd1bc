#pragma once

#include <cstddef>
#include <string>

#include <sys/stat.h>
#include <sys/types.h>

namespace opc::detail {

/// Owns one open file of the system, with the path that it was opened under for messages. Every call is repeated
/// when a signal interrupts it, and throws `opc::Exception` when it fails for good.
class FileDescriptor {
public:
    /// Opens the file; `flags` and `permissions` are those of open(2). Closed on exec.
    FileDescriptor(std::string path, int flags, mode_t permissions = 0);

    FileDescriptor(FileDescriptor&& other) noexcept;
    FileDescriptor& operator=(FileDescriptor&&) = delete;
    ~FileDescriptor();

    int handle() const { return descriptor_; }
    std::string const& path() const { return path_; }
    struct stat status() const;

    /// Reads up to `count` bytes; 0 only at the end of the file.
    std::size_t read(char* buffer, std::size_t count);

    /// Writes all bytes, however often the system takes only some of them.
    void write(char const* buffer, std::size_t count);

    /// Moves the file's position as lseek(2) does, and returns it.
    off_t seek(off_t offset, int whence);

    /// Writes all that is left of `source` from its position on.
    void writeAllOf(FileDescriptor& source);

    /// Waits until the file's data and status (for a folder: its entries) are on the disk.
    void sync();

    void setPermissions(mode_t permissions);

    /// Gives the file to another owner where the system allows it, which is rarely so but for root.
    void setOwner(uid_t user, gid_t group) noexcept;

    /// Closes the file and says whether the system had written it all; the destructor closes what is still open.
    void close();

private:
    std::string path_;
    int descriptor_; // -1: closed
};

/// Removes a file as unlink(2) does, and tries once more before it gives up: nobody comes back for what stays. Returns
/// 0, or -1 with errno.
int removeFile(std::string const& path) noexcept;

} // namespace opc::detail
