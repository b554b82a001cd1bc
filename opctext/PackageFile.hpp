#pragma once

#include <functional>
#include <istream>
#include <memory>
#include <string>

namespace opctext {

/// A package file named on the command line.
class PackageFile {
public:
    /// `path` is in the system's form, as the shell gave it.
    explicit PackageFile(std::string const& path);

    /// A file that messages call by another name.
    PackageFile(std::string const& path, std::string shownPath);

    /// The path for messages.
    std::string const& path() const { return path_; }

    /// The path in the form that the library takes.
    std::u16string const& corePath() const { return corePath_; }

    /// Throws `Failure` where there is no regular file.
    void requireRegular() const;

    /// Runs an action of the library on the file. What it throws comes out as `Failure`, its message beginning with
    /// the path and, where one is given, the name of a part, and its status telling a malformed package from a failing
    /// disk.
    void run(std::function<void()> const& action, std::string const& partName = {}) const;

    /// Opens the file and runs an action that scans its stream; messages then have the number of the line that the
    /// stream stood behind when the action failed.
    void scan(std::function<void(std::istream&)> const& action) const;

private:
    std::shared_ptr<std::istream> openStream() const;
    std::string lineBefore(std::istream& stream) const;

    std::string path_;
    std::u16string corePath_;
};

} // namespace opctext
