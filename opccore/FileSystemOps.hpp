#pragma once

#include <cstdint>
#include <iosfwd>
#include <memory>
#include <string>

#include <boost/system/error_code.hpp>

#include <opccore/Export.hpp>

namespace opc {

struct CommitOptions;

/// What `FileSystemOps::copy` does when the destination exists.
enum class ExistsMode : std::uint32_t { Fail = 0, Overwrite = 1 };

/// POSIX permission bits.
struct Perms {
    enum Perms_tag : unsigned {
        None = 0,
        OwnerRead = 0400,
        OwnerWrite = 0200,
        OwnerExecute = 0100,
        OwnerReadWrite = 0600,
        OwnerAll = 0700,
        GroupRead = 0040,
        OthersRead = 0004,
    };
};

/// The bits of the open modes that `createInputStream` and `createOutputStream` take. They are numbers of the
/// contract, the same on every platform, and not those of `std::ios_base::openmode`.
struct StreamMode {
    enum StreamMode_tag : unsigned { App = 1, Ate = 2, Binary = 4, In = 8, Out = 16, Trunc = 32 };
};

/// The file services that a package calls.
///
/// Paths:  UTF-16, "/" between components; a name of any length is accepted (see `detail::makeNativePath`).
/// Errors: the forms with an `error_code` report a failure there, clear the code on success and don't throw; the
///         others throw `opc::Exception` that names the path and carries the system's code.
/// Threads: no state; each call may run beside others.
class OPCCORE_EXPORT FileSystemOps {
public:
    virtual ~FileSystemOps();

    /// Joins a folder and a relative name (which may begin with "/") into a path that lies inside the folder; two
    /// different names never give the same file. An empty folder gives a relative path.
    /// Throws `opc::Exception` "Not a usable part name: ..." for a name that is empty after its leading "/", holds a
    /// NUL, or has an empty, "." or ".." segment, or a segment that looks like a shortened one.
    virtual std::u16string appendPath(std::u16string const& folder, std::u16string const& name) const = 0;

    /// The last component of the path.
    virtual std::u16string getFilename(std::u16string const& path) const = 0;

    /// The folder that holds the path; empty for a path of one relative component.
    virtual std::u16string getParentPath(std::u16string const& path) const = 0;

    /// A fresh, unpredictable path in the system's temporary area, where nothing exists yet; its last component
    /// begins with `prefix`. The area is what TMPDIR says, taken at its word, else "/tmp".
    virtual std::u16string getTempName(std::u16string const& prefix) const = 0;

    /// The absolute form of the path, its symbolic links resolved as far as it exists; an empty path stays empty.
    virtual std::u16string normalizePath(std::u16string const& path) const = 0;

    /// Whether the path leads to anything, links followed. Throws when the system can't tell (no permission to
    /// search a folder on the way, a loop of links).
    virtual bool exists(std::u16string const& path) const = 0;

    /// Whether the path leads to a regular file, links followed. Throws as `exists` does.
    virtual bool isFile(std::u16string const& path) const = 0;

    /// Creates the folder and every missing ancestor, each for its owner alone (mode 0700). A folder that is
    /// already there is left as it is.
    virtual void createFolders(std::u16string const& path) const = 0;
    virtual void createFolders(std::u16string const& path, boost::system::error_code& code) const = 0;

    virtual void setPermissions(std::u16string const& path, Perms::Perms_tag permissions) const = 0;

    /// Opens a file for reading; `mode` is a sum of `StreamMode` bits. The returned stream throws `opc::Exception`
    /// when a read fails, so that a disk error is never taken for the end of the file. Null on a reported failure.
    virtual std::shared_ptr<std::istream> createInputStream(std::u16string const& path, unsigned mode) const = 0;
    virtual std::shared_ptr<std::istream> createInputStream(std::u16string const& path, unsigned mode,
                                                            boost::system::error_code& code) const = 0;

    /// Opens a file for writing; creates it where it is missing and empties it unless `mode` holds
    /// `StreamMode::App`. The stream of the first form throws `opc::Exception` when a write fails; that of the
    /// second sets its bad or fail bit. With either form a regular file that could not be written whole is removed
    /// when the stream is released, so that no reader takes it for a whole one; with `App` it is cut back to what it
    /// held before. Null on a reported failure.
    virtual std::shared_ptr<std::ostream> createOutputStream(std::u16string const& path, unsigned mode) const = 0;
    virtual std::shared_ptr<std::ostream> createOutputStream(std::u16string const& path, unsigned mode,
                                                             boost::system::error_code& code) const = 0;

    /// Copies the bytes of a regular file and its permission bits as far as the umask allows. With
    /// `ExistsMode::Fail` whatever exists at `to`, a dangling link included, makes it fail; with `Overwrite` a file
    /// or link at `to` is replaced by the whole copy. A failed copy leaves `to` as it was.
    virtual void copy(std::u16string const& from, std::u16string const& to, ExistsMode mode) const = 0;

    /// Puts the file `source` of the file system `sourceFileSystem` in the place of `target`, atomically and
    /// durably, and removes `source`: whoever looks, at any moment and after a crash, finds the whole old file or the
    /// whole new one. A link at `target` stays and the file that it leads to is replaced. The new file gets the
    /// permission bits of the old one (and its owner where the system allows that), or what the umask gives to a new
    /// file. Throws when it could not be done; the old file is then in place and `source` still there, unless the
    /// message says that only syncing the folder failed.
    virtual void replaceFileWithBackup(std::u16string const& target, FileSystemOps& sourceFileSystem,
                                       std::u16string const& source, CommitOptions const& options) const = 0;

    /// Removes one file (a link, never what it leads to); returns whether there was one.
    virtual bool remove(std::u16string const& path, boost::system::error_code& code) const = 0;

    /// Removes a folder and all that is in it, following no link; returns how many entries were removed; those of a
    /// first try that failed don't count.
    virtual std::uintmax_t removeAll(std::u16string const& path, boost::system::error_code& code) const = 0;

protected:
    FileSystemOps() = default;
    FileSystemOps(FileSystemOps const&) = default;
    FileSystemOps& operator=(FileSystemOps const&) = default;
};

} // namespace opc
