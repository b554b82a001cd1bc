#include <opccore/removeTree.hpp>

#include <array>
#include <cerrno>
#include <string_view>

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <opccore/SystemError.hpp>

namespace opc::detail {

namespace {

constexpr unsigned MostFoldersHeldOpen = 64;

/// A folder that entries are removed from. Leaves errno alone when it closes.
class OpenFolder {
public:
    explicit OpenFolder(int handle) : handle_(handle) {}
    OpenFolder(OpenFolder const&) = delete;
    OpenFolder& operator=(OpenFolder const&) = delete;
    ~OpenFolder() { close(); }

    int handle() const { return handle_; }

    /// The handle of a folder in this one; -1 where it can't be opened.
    int open(char const* name) const {
        return ::openat(handle_, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    }

    void reset(int handle) {
        close();
        handle_ = handle;
    }

private:
    void close() const {
        int const error = errno;
        if (handle_ >= 0) // else it is the current folder, or none
            ::close(handle_);
        errno = error;
    }

    int handle_;
};

/// Removes trees. Each step returns false where the system refused something, and errno says why.
class TreeRemoval {
public:
    bool removeEntry(OpenFolder& parent, char const* name, unsigned depth = 0) {
        if (unlink(parent, name, 0))
            return true;
        if (errno != EISDIR)
            return errno == ENOENT || errno == ENOTDIR; // gone, or never there
        if (unlink(parent, name, AT_REMOVEDIR))
            return true;
        if (errno != ENOTEMPTY)
            return errno == ENOENT;

        OpenFolder folder(parent.open(name));
        bool const closesParent = depth > MostFoldersHeldOpen;
        if (folder.handle() == -1)
            return false;
        if (closesParent)
            parent.reset(-1);
        if (!removeContents(folder, depth + 1))
            return false;
        if (closesParent)
            parent.reset(folder.open(".."));
        return unlink(parent, name, AT_REMOVEDIR);
    }

    std::uintmax_t removed() const { return removed_; }

private:
    bool removeContents(OpenFolder& folder, unsigned depth) {
        alignas(dirent64) std::array<char, 1024> block; // for each folder on the way down: on the stack, and small
        for (;;) {
            auto const size = ::getdents64(folder.handle(), block.data(), block.size());
            if (size <= 0)
                return size == 0;
            for (std::size_t at = 0; at < static_cast<std::size_t>(size);) {
                auto const& entry = *reinterpret_cast<dirent64 const*>(block.data() + at);
                at += entry.d_reclen;
                std::string_view const name = entry.d_name;
                if (name != "." && name != ".." && !removeEntry(folder, entry.d_name, depth))
                    return false;
            }
        }
    }

    bool unlink(OpenFolder const& parent, char const* name, int flags) {
        bool const done = ::unlinkat(parent.handle(), name, flags) == 0;
        removed_ += done ? 1 : 0;
        return done;
    }

    std::uintmax_t removed_ = 0;
};

} // namespace

std::uintmax_t removeTree(std::string const& nativePath) {
    OpenFolder current(AT_FDCWD);
    // Once more before giving up: nobody comes back for what stays. An interruption is no failure at all.
    for (bool isLastTry = false;;) {
        TreeRemoval removal;
        if (removal.removeEntry(current, nativePath.c_str()))
            return removal.removed();
        if (isLastTry)
            throwSystemError("Could not remove", nativePath);
        isLastTry = errno != EINTR;
    }
}

} // namespace opc::detail
