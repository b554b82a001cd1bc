#include <opctext/PackageEdit.hpp>

#include <optional>

#include <sys/stat.h>

#include <opccore/CommitOptions.hpp>
#include <opccore/StringConversion.hpp>
#include <opctext/Failure.hpp>
#include <opctext/OpenPackage.hpp>
#include <opctext/PackageCheck.hpp>

namespace opctext {

namespace {

using opc::interfaces::OpenMode;

/// What tells one state of a file from another without reading it.
class FileState {
public:
    explicit FileState(PackageFile const& file) {
        struct stat status {};
        if (::stat(opc::detail::makeNativePath(file.corePath()).c_str(), &status) == 0)
            status_ = status;
    }

    bool exists() const { return status_.has_value(); }

    bool operator==(FileState const& other) const {
        if (!status_ || !other.status_)
            return exists() == other.exists();
        auto const& a = *status_;
        auto const& b = *other.status_;
        return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size && isSame(a.st_mtim, b.st_mtim);
    }

private:
    static bool isSame(timespec const& a, timespec const& b) { return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec; }

    std::optional<struct stat> status_;
};

void requireNothingLostByEditing(PackageFile const& file) {
    for (auto const& finding : checkPackage(file)) {
        if (finding.isLostByEditing)
            throw Failure(ExitStatus::NotAPackage, finding.asText(file.path()) + "\n" + file.path() +
                                                       ": not changed, since an edit would make this worse; see "
                                                       "opctext check");
    }
}

void changeAndCommit(PackageFile const& file, OpenMode mode, FileState const& before, KeepBackup keepBackup,
                     std::function<void(OpenPackage&)> const& change) {
    OpenPackage package(file, mode);
    opc::CommitOptions options;
    options.keepBackup = keepBackup == KeepBackup::Yes;
    options.beforeReplace = [&](std::u16string const& /*target*/) {
        if (!(FileState(file) == before))
            throw Failure(ExitStatus::InputOutput, file.path() + ": somebody else changed the file in the meantime; "
                                                                 "theirs is left, and your change is not in it");
    };
    package->setCommitOptions(options);
    file.run([&] {
        change(package);
        package->close(false);
    });
}

} // namespace

void editPackage(PackageFile const& file, KeepBackup keepBackup, std::function<void(OpenPackage&)> const& change) {
    FileState const before(file);
    requireNothingLostByEditing(file);
    changeAndCommit(file, OpenMode::ReadWrite, before, keepBackup, change);
}

void createPackageFile(PackageFile const& file, bool mayOverwrite, KeepBackup keepBackup,
                       std::function<void(OpenPackage&)> const& change) {
    FileState const before(file);
    if (before.exists() && !mayOverwrite)
        throw Failure(ExitStatus::InputOutput, file.path() + ": exists already; -f overwrites it");
    if (before.exists())
        file.requireRegular();
    changeAndCommit(file, OpenMode::Create, before, keepBackup, change);
}

} // namespace opctext
