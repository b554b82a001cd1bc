#include <opctext/TargetFolder.hpp>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <random>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include <opccore/LocalFileSystemOps.hpp>
#include <opccore/StringConversion.hpp>
#include <opctext/Failure.hpp>
#include <opctext/Messages.hpp>
#include <opctext/PackageListing.hpp>

namespace opctext {

namespace {

constexpr int FolderFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

[[noreturn]] void failWith(std::string const& path, int error) {
    throw Failure(ExitStatus::InputOutput, printable(path) + ": " + std::strerror(error));
}

/// The components of a part name, each within what file systems take.
std::vector<std::string> componentsOf(std::string const& name) {
    auto const relative = opc::LocalFileSystemOps().appendPath(u"", opc::toString(name, true));
    auto const native = opc::detail::makeNativePath(relative);
    std::vector<std::string> components;
    for (std::size_t begin = 0; begin <= native.size();) {
        auto const end = std::min(native.find('/', begin), native.size());
        components.push_back(native.substr(begin, end - begin));
        begin = end + 1;
    }
    return components;
}

} // namespace

TargetFolder::TargetFolder(std::string path) : path_(std::move(path)) {
    if (::mkdir(path_.c_str(), 0777) == -1 && errno != EEXIST)
        failWith(path_, errno);
    folder_ = OwnedDescriptor(::open(path_.c_str(), FolderFlags));
    if (folder_.get() == -1)
        failWith(path_, errno);
}

TargetFolder::File::File(TargetFolder const& target, std::string const& name, Overwrite overwrite)
    : shownPath_(target.path_ + name),
      folder_(::fcntl(target.folder_.get(), F_DUPFD_CLOEXEC, 0)) {
    auto components = componentsOf(name);
    name_ = std::move(components.back());
    components.pop_back();
    for (auto const& component : components) {
        bool const isThere = ::mkdirat(folder_.get(), component.c_str(), 0777) == 0 || errno == EEXIST;
        OwnedDescriptor next(isThere ? ::openat(folder_.get(), component.c_str(), FolderFlags | O_NOFOLLOW) : -1);
        if (next.get() == -1)
            fail(errno);
        folder_ = std::move(next);
    }

    // A file that is to replace another is written under a name of its own, so that the other is whole until then.
    auto writtenName = overwrite == Overwrite::Yes ? fmt::format(".opctext-{:08x}.tmp", std::random_device()()) : name_;
    constexpr int NewFileFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    file_ = OwnedDescriptor(::openat(folder_.get(), writtenName.c_str(), NewFileFlags, 0666));
    if (file_.get() == -1)
        fail(errno);
    writtenName_ = std::move(writtenName);
}

TargetFolder::File::~File() {
    if (!writtenName_.empty())
        ::unlinkat(folder_.get(), writtenName_.c_str(), 0);
}

void TargetFolder::File::write(std::string_view data) {
    while (!data.empty()) {
        auto const written = ::write(file_.get(), data.data(), data.size());
        if (written == -1 && errno != EINTR)
            fail(errno);
        data.remove_prefix(written == -1 ? 0 : static_cast<std::size_t>(written));
    }
}

void TargetFolder::File::finish() {
    bool const isUnderItsName = writtenName_ == name_;
    struct stat other {};
    bool const replaces = !isUnderItsName && ::fstatat(folder_.get(), name_.c_str(), &other, AT_SYMLINK_NOFOLLOW) == 0;
    // Unsynced, a power failure could leave neither of the two. EINVAL: what the file lies on knows no syncing.
    if (replaces && ::fsync(file_.get()) == -1 && errno != EINVAL)
        fail(errno);
    if (::close(file_.release()) == -1 && errno != EINTR)
        fail(errno);
    if (!isUnderItsName && ::renameat(folder_.get(), writtenName_.c_str(), folder_.get(), name_.c_str()) == -1)
        fail(errno);
    writtenName_.clear();
}

void TargetFolder::File::fail(int error) const {
    if (error == EEXIST)
        throw Failure(ExitStatus::InputOutput, printable(shownPath_) + ": exists already; -f overwrites it");
    if (error == ELOOP || error == ENOTDIR)
        throw Failure(ExitStatus::InputOutput,
                      printable(shownPath_) + ": a link or a file is in the way of its folder");
    failWith(shownPath_, error);
}

} // namespace opctext
