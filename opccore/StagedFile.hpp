#pragma once

#include <iosfwd>
#include <optional>
#include <string>

#include <sys/stat.h>

#include <opccore/FileDescriptor.hpp>

namespace opc::detail {

/// A file that is made ready under a random name beside its destination and takes the destination's name only when
/// it is whole. Destruction removes it if it was not published, and leaves all else as it was.
///
/// Errors: every operation throws `opc::Exception`.
class StagedFile {
public:
    /// A file with what the regular file `source` holds: a second link to it where that is possible and safe, else a
    /// copy for its owner alone.
    StagedFile(std::string const& source, std::string destination);

    /// A copy of `source` from its position to its end, with its permission bits as far as the umask allows.
    StagedFile(FileDescriptor& source, std::string destination);
    StagedFile(std::istream& source, std::string destination);

    StagedFile(StagedFile const&) = delete;
    StagedFile& operator=(StagedFile const&) = delete;
    ~StagedFile();

    /// Lets the file remove the source early, where they share one file that is about to be opened to more users: the
    /// source may lie in a folder of everybody. Destruction puts it back if the file was not published.
    void allowRemovalOf(std::string const& source) { removableSource_ = source; }

    /// Takes the permission bits of another file, and its owner where the system allows that.
    void setPermissionsOf(struct stat const& other);

    /// Takes the permission bits that the umask and the folder give to a new file.
    void setDefaultPermissions();

    void sync() { file_->sync(); }

    /// Renames the file to its destination, replacing what stands there, and syncs the folder.
    void publish();

private:
    explicit StagedFile(std::string destination);
    bool link(std::string const& source);
    void create(mode_t permissions);
    void setPermissions(mode_t permissions);

    std::string destination_;
    FileDescriptor folder_; // opened first: what can't be synced later is not begun
    std::string name_;      // empty: nothing to remove
    std::optional<FileDescriptor> file_;
    std::optional<struct stat> linked_; // the status of a source that shares it with this file
    std::string removableSource_;       // empty: it has to stay
    bool isSourceRemoved_ = false;
};

/// Opens a regular file to copy it; never waits for what is none, a pipe for example, but throws.
FileDescriptor openRegularFile(std::string const& path);

/// Whether two paths lead to the same entry of the same folder.
bool isSameEntry(std::string const& first, std::string const& second);

/// The status of what stands at a path, links not followed; none where nothing does.
std::optional<struct stat> statusOfEntry(std::string const& path);

/// Where a file written to `path` really goes: the end of the chain of links that begins there, if there is one.
std::string followLinks(std::string path);

} // namespace opc::detail
