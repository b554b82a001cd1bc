#include <opccore/LocalFileSystemOps.hpp>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <opccore/CommitOptions.hpp>
#include <opccore/Exception.hpp>
#include <opccore/FileDescriptor.hpp>
#include <opccore/FileStreams.hpp>
#include <opccore/NativePath.hpp>
#include <opccore/RandomName.hpp>
#include <opccore/StagedFile.hpp>
#include <opccore/StringConversion.hpp>
#include <opccore/SystemError.hpp>
#include <opccore/removeTree.hpp>

namespace opc {

using detail::FileDescriptor;
using detail::makeNativePath;
using detail::StagedFile;
using detail::throwSystemError;

namespace {

/// Runs an operation for a caller who wants its failure as a code.
template <class Operation>
auto reportingTo(boost::system::error_code& code, Operation operation) -> decltype(operation()) {
    code.clear();
    try {
        return operation();
    } catch (Exception const& failure) {
        code = failure.code() ? failure.code() : detail::systemCode(EINVAL);
        return decltype(operation())();
    } catch (std::bad_alloc const&) {
        code = detail::systemCode(ENOMEM);
        return decltype(operation())();
    }
}

/// The status of what a path leads to, links followed; none where it leads to nothing.
std::optional<struct stat> statusOf(std::u16string const& path) {
    auto const native = makeNativePath(path);
    struct stat status {};
    if (::stat(native.c_str(), &status) == 0)
        return status;
    if (errno != ENOENT && errno != ENOTDIR)
        throwSystemError("Could not examine", native);
    return std::nullopt;
}

/// Why a name can't name a file inside a folder; null where it can.
char const* findFault(std::u16string_view name) {
    if (name.empty())
        return "it is empty";
    if (name.find(u'\0') != std::u16string_view::npos)
        return "it holds a NUL";
    for (std::size_t begin = 0; begin <= name.size();) {
        auto const end = std::min(name.find(u'/', begin), name.size());
        auto const segment = name.substr(begin, end - begin);
        if (segment.empty())
            return "it has an empty segment";
        if (segment == u"." || segment == u"..")
            return "it has a dot segment";
        if (detail::looksShortened(segment))
            return "it could be taken for a longer name that was shortened";
        begin = end + 1;
    }
    return nullptr;
}

void createFolder(std::string const& path) {
    if (::mkdir(path.c_str(), 0700) == 0)
        return;
    int const error = errno;
    struct stat status {};
    bool const isThere = error == EEXIST && ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
    if (!isThere)
        throwSystemError("Could not create folder", path, error);
}

void copyToNewFile(FileDescriptor& source, std::string const& to) {
    FileDescriptor copy(to, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, source.status().st_mode & 0777);
    try {
        copy.writeAllOf(source);
        copy.close();
    } catch (...) {
        detail::removeFile(to);
        throw;
    }
}

void requireDifferentEntries(std::string const& first, std::string const& second) {
    if (detail::isSameEntry(first, second))
        throwSystemError("Could not replace a file by itself or keep it as its own backup:", first, EINVAL);
}

/// The new file beside the one that it will replace.
std::unique_ptr<StagedFile> stageSource(FileSystemOps& fileSystem, std::u16string const& source,
                                        std::string const& destination) {
    if (dynamic_cast<LocalFileSystemOps*>(&fileSystem) != nullptr) {
        auto const native = makeNativePath(source);
        requireDifferentEntries(native, destination);
        auto staged = std::make_unique<StagedFile>(native, destination);
        staged->allowRemovalOf(native);
        return staged;
    }
    auto const content = fileSystem.createInputStream(source, StreamMode::In | StreamMode::Binary);
    return std::make_unique<StagedFile>(*content, destination);
}

/// The backup of the old file beside the name that it will have.
std::unique_ptr<StagedFile> stageBackup(std::string const& original, std::string const& source,
                                        std::string const& backupPath) {
    requireDifferentEntries(backupPath, original);
    requireDifferentEntries(backupPath, source);
    auto backup = std::make_unique<StagedFile>(original, backupPath);
    backup->setPermissionsOf(*detail::statusOfEntry(original));
    backup->sync();
    return backup;
}

std::u16string_view withoutTrailingSlashes(std::u16string_view path) {
    return path.substr(0, path.find_last_not_of(u'/') + 1);
}

} // namespace

LocalFileSystemOps::~LocalFileSystemOps() = default;

std::u16string LocalFileSystemOps::appendPath(std::u16string const& folder, std::u16string const& name) const {
    auto relative = name.substr(name.compare(0, 1, u"/") == 0 ? 1 : 0);
    if (char const* const fault = findFault(relative))
        throw Exception("Not a usable part name: \"" + toUDEString(name) + "\": " + fault);
    if (folder.empty())
        return relative;
    return folder.back() == u'/' ? folder + relative : folder + u'/' + relative;
}

std::u16string LocalFileSystemOps::getFilename(std::u16string const& path) const {
    auto const trimmed = withoutTrailingSlashes(path);
    return std::u16string(trimmed.substr(trimmed.rfind(u'/') + 1));
}

std::u16string LocalFileSystemOps::getParentPath(std::u16string const& path) const {
    auto const trimmed = withoutTrailingSlashes(path);
    auto const slash = trimmed.rfind(u'/');
    if (slash == std::u16string_view::npos)
        return path.substr(0, trimmed.empty() && !path.empty() ? 1 : 0);
    auto const parent = withoutTrailingSlashes(trimmed.substr(0, slash));
    return parent.empty() ? u"/" : std::u16string(parent);
}

std::u16string LocalFileSystemOps::getTempName(std::u16string const& prefix) const {
    auto const area = toString(detail::temporaryFolder(), true);
    for (;;) {
        auto path = appendPath(area, prefix + toString(detail::randomName(), true));
        struct stat status {};
        if (::lstat(makeNativePath(path).c_str(), &status) == -1)
            return path;
    }
}

std::u16string LocalFileSystemOps::normalizePath(std::u16string const& path) const {
    if (path.empty())
        return path;
    auto const native = makeNativePath(path);
    std::error_code code;
    auto normalized = std::filesystem::absolute(native, code);
    if (!code)
        normalized = std::filesystem::weakly_canonical(normalized, code);
    if (code)
        throwSystemError("Could not resolve", native, code.value());
    return detail::fromNativePath(normalized.native());
}

bool LocalFileSystemOps::exists(std::u16string const& path) const {
    return statusOf(path).has_value();
}

bool LocalFileSystemOps::isFile(std::u16string const& path) const {
    auto const status = statusOf(path);
    return status && S_ISREG(status->st_mode);
}

void LocalFileSystemOps::createFolders(std::u16string const& path) const {
    auto const native = makeNativePath(path);
    // mkdir(2) itself says whether a folder is there: asking first would leave a gap for somebody else.
    for (auto end = native.find('/', 1); end != std::string::npos; end = native.find('/', end + 1))
        createFolder(native.substr(0, end));
    createFolder(native);
}

void LocalFileSystemOps::createFolders(std::u16string const& path, boost::system::error_code& code) const {
    reportingTo(code, [&] { createFolders(path); });
}

void LocalFileSystemOps::setPermissions(std::u16string const& path, Perms::Perms_tag permissions) const {
    auto const native = makeNativePath(path);
    if (::chmod(native.c_str(), permissions) == -1)
        throwSystemError("Could not set the permissions of", native);
}

std::shared_ptr<std::istream> LocalFileSystemOps::createInputStream(std::u16string const& path, unsigned mode) const {
    return detail::openInputStream(makeNativePath(path), (mode & StreamMode::Ate) != 0);
}

std::shared_ptr<std::istream> LocalFileSystemOps::createInputStream(std::u16string const& path, unsigned mode,
                                                                    boost::system::error_code& code) const {
    return reportingTo(code, [&] { return createInputStream(path, mode); });
}

std::shared_ptr<std::ostream> LocalFileSystemOps::createOutputStream(std::u16string const& path, unsigned mode) const {
    return detail::openOutputStream(makeNativePath(path), (mode & StreamMode::App) != 0, detail::OnWriteFailure::Throw);
}

std::shared_ptr<std::ostream> LocalFileSystemOps::createOutputStream(std::u16string const& path, unsigned mode,
                                                                     boost::system::error_code& code) const {
    return reportingTo(code, [&] {
        return detail::openOutputStream(makeNativePath(path), (mode & StreamMode::App) != 0,
                                        detail::OnWriteFailure::SetBit);
    });
}

void LocalFileSystemOps::copy(std::u16string const& from, std::u16string const& to, ExistsMode mode) const {
    auto source = detail::openRegularFile(makeNativePath(from));
    auto const destination = makeNativePath(to);
    if (mode == ExistsMode::Fail)
        return copyToNewFile(source, destination);

    StagedFile staged(source, destination);
    staged.sync();
    staged.publish();
}

void LocalFileSystemOps::replaceFileWithBackup(std::u16string const& target, FileSystemOps& sourceFileSystem,
                                               std::u16string const& source, CommitOptions const& options) const {
    auto const destination = detail::followLinks(makeNativePath(target));
    auto const old = detail::statusOfEntry(destination);
    if (old && !S_ISREG(old->st_mode))
        throw Exception("Could not replace \"" + destination + "\": it is no regular file");

    // All that takes time or is likely to fail comes first; what is left then is two renames.
    auto const fresh = stageSource(sourceFileSystem, source, destination);
    old ? fresh->setPermissionsOf(*old) : fresh->setDefaultPermissions();
    fresh->sync();
    std::unique_ptr<StagedFile> backup;
    if (old && options.keepBackup) {
        auto const backupPath = options.backupPath.empty() ? target + u".bak" : options.backupPath;
        backup = stageBackup(destination, makeNativePath(source), makeNativePath(backupPath));
    }

    if (options.beforeReplace)
        options.beforeReplace(target);
    if (backup)
        backup->publish();
    fresh->publish();

    boost::system::error_code ignored;
    sourceFileSystem.remove(source, ignored);
}

bool LocalFileSystemOps::remove(std::u16string const& path, boost::system::error_code& code) const {
    return reportingTo(code, [&] {
        auto const native = makeNativePath(path);
        if (detail::removeFile(native) == 0)
            return true;
        if (errno != ENOENT && errno != ENOTDIR)
            throwSystemError("Could not remove", native);
        return false;
    });
}

std::uintmax_t LocalFileSystemOps::removeAll(std::u16string const& path, boost::system::error_code& code) const {
    return reportingTo(code, [&] { return detail::removeTree(makeNativePath(path)); });
}

} // namespace opc
