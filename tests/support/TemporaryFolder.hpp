#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace testsupport {

/// The whole content of a file; fails the test where it can't be read.
std::string readFile(std::filesystem::path const& path);

/// A path in the form that the core takes.
std::u16string toCorePath(std::filesystem::path const& path);

/// A folder of the test's own, removed in the end with all that is in it.
class TemporaryFolder {
public:
    TemporaryFolder();
    TemporaryFolder(TemporaryFolder const&) = delete;
    TemporaryFolder& operator=(TemporaryFolder const&) = delete;
    ~TemporaryFolder();

    std::filesystem::path const& path() const { return path_; }
    std::filesystem::path operator/(std::string_view name) const { return path_ / name; }

    /// Writes a file, making the folders that it needs, and returns its path in the form that the core takes.
    std::u16string write(std::string_view name, std::string_view content) const;

    /// The same path without a file.
    std::u16string corePath(std::string_view name) const;

    std::string read(std::string_view name) const;

    /// The names in the folder, sorted; hidden ones too.
    std::vector<std::string> entries() const;

private:
    std::filesystem::path path_;
};

/// Makes a folder of the test's own the system's temporary area for as long as it lives (TMPDIR).
class PrivateTemporaryArea {
public:
    PrivateTemporaryArea();
    PrivateTemporaryArea(PrivateTemporaryArea const&) = delete;
    PrivateTemporaryArea& operator=(PrivateTemporaryArea const&) = delete;
    ~PrivateTemporaryArea();

    TemporaryFolder const& folder() const { return folder_; }

    /// What was left in it.
    std::vector<std::string> entries() const { return folder_.entries(); }

private:
    TemporaryFolder folder_;
    std::string earlier_;
    bool wasSet_;
};

} // namespace testsupport
