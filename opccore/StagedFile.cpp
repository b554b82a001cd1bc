#include <opccore/StagedFile.hpp>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <istream>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

#include <opccore/RandomName.hpp>
#include <opccore/SystemError.hpp>

namespace opc::detail {

namespace {

constexpr mode_t PermissionBits = 07777;

std::string folderOf(std::string const& path) {
    auto const slash = path.rfind('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string nameBeside(std::string const& path) {
    return folderOf(path) + "/.opc-" + randomName() + ".tmp";
}

} // namespace

StagedFile::StagedFile(std::string destination)
    : destination_(std::move(destination)),
      folder_(folderOf(destination_), O_RDONLY | O_DIRECTORY) {
}

// The body of a constructor that delegates runs in a finished object: the destructor cleans up after its exceptions.
StagedFile::StagedFile(std::string const& source, std::string destination) : StagedFile(std::move(destination)) {
    if (link(source))
        return;
    auto original = openRegularFile(source);
    create(0600);
    file_->writeAllOf(original);
}

StagedFile::StagedFile(FileDescriptor& source, std::string destination) : StagedFile(std::move(destination)) {
    create(source.status().st_mode & 0777);
    file_->writeAllOf(source);
}

StagedFile::StagedFile(std::istream& source, std::string destination) : StagedFile(std::move(destination)) {
    create(0600);
    std::array<char, 65536> block;
    while (source.read(block.data(), block.size()), source.gcount() > 0)
        file_->write(block.data(), static_cast<std::size_t>(source.gcount()));
    if (source.bad())
        throwSystemError("Could not read the new content of", destination_, EIO);
}

StagedFile::~StagedFile() {
    if (name_.empty())
        return;
    if (linked_ && file_) {
        file_->setOwner(linked_->st_uid, linked_->st_gid);
        ::fchmod(file_->handle(), linked_->st_mode & PermissionBits);
    }
    if (!isSourceRemoved_ || ::link(name_.c_str(), removableSource_.c_str()) == 0)
        removeFile(name_);
    else // never over what stands there now; where that fails too, better left here than lost
        ::renameat2(AT_FDCWD, name_.c_str(), AT_FDCWD, removableSource_.c_str(), RENAME_NOREPLACE);
}

void StagedFile::setPermissionsOf(struct stat const& other) {
    auto const own = file_->status();
    if (own.st_uid != other.st_uid || own.st_gid != other.st_gid)
        file_->setOwner(other.st_uid, other.st_gid); // first: a change of owner clears bits
    setPermissions(other.st_mode);
}

void StagedFile::setDefaultPermissions() {
    // Made only to be looked at: the umask can't be read without changing it for every thread of the process, and
    // the folder may have a say as well.
    auto const probe = nameBeside(destination_);
    FileDescriptor const file(probe, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, 0666);
    removeFile(probe);
    setPermissions(file.status().st_mode);
}

void StagedFile::publish() {
    if (::rename(name_.c_str(), destination_.c_str()) == -1)
        throwSystemError("Could not replace", destination_);
    // Where another process has put a link to the same file there, both links stay: rename(2) does nothing then.
    ::unlink(name_.c_str());
    name_.clear();
    folder_.sync();
}

/// Makes the staged file a second link to the source, which costs nothing however large it is. Only for a source
/// that nobody else shares: what they did to it later, they would do to the destination.
bool StagedFile::link(std::string const& source) {
    auto const status = statusOfEntry(source);
    if (!status)
        throwSystemError("Could not open", source, ENOENT);
    if (!S_ISREG(status->st_mode) || status->st_nlink != 1)
        return false;
    auto name = nameBeside(destination_);
    if (::link(source.c_str(), name.c_str()) == -1)
        return false; // another file system, or one without links
    name_ = std::move(name);
    linked_ = status;
    file_.emplace(name_, O_RDONLY | O_NOFOLLOW);
    return true;
}

void StagedFile::create(mode_t permissions) {
    auto name = nameBeside(destination_);
    file_.emplace(name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, permissions);
    name_ = std::move(name);
}

void StagedFile::setPermissions(mode_t permissions) {
    bool const opensSource = linked_ && (permissions & PermissionBits & ~linked_->st_mode) != 0;
    if (opensSource)
        isSourceRemoved_ = removeFile(removableSource_) == 0; // one that has to stay has no path here
    file_->setPermissions(permissions & PermissionBits);
}

FileDescriptor openRegularFile(std::string const& path) {
    FileDescriptor file(path, O_RDONLY | O_NONBLOCK);
    auto const mode = file.status().st_mode;
    if (!S_ISREG(mode))
        throwSystemError("Could not copy", path, S_ISDIR(mode) ? EISDIR : EINVAL);
    return file;
}

bool isSameEntry(std::string const& first, std::string const& second) {
    if (first.substr(first.rfind('/') + 1) != second.substr(second.rfind('/') + 1))
        return false;
    auto const firstFolder = FileDescriptor(folderOf(first), O_PATH | O_DIRECTORY).status();
    auto const secondFolder = FileDescriptor(folderOf(second), O_PATH | O_DIRECTORY).status();
    return firstFolder.st_dev == secondFolder.st_dev && firstFolder.st_ino == secondFolder.st_ino;
}

std::optional<struct stat> statusOfEntry(std::string const& path) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) == 0)
        return status;
    if (errno != ENOENT)
        throwSystemError("Could not examine", path);
    return std::nullopt;
}

std::string followLinks(std::string path) {
    constexpr int MostLinks = 40; // as many as the kernel follows
    for (int links = 0; links <= MostLinks; ++links) {
        std::array<char, PATH_MAX> target;
        auto const size = ::readlink(path.c_str(), target.data(), target.size());
        if (size == -1)
            return path; // no link, or nothing there
        std::string next(target.data(), static_cast<std::size_t>(size));
        path = next.front() == '/' ? std::move(next) : folderOf(path).append("/").append(next);
    }
    throwSystemError("Could not follow the links at", path, ELOOP);
}

} // namespace opc::detail
