#pragma once

#include <string>
#include <string_view>

#include <opctext/OwnedDescriptor.hpp>

namespace opctext {

enum class Overwrite { No, Yes };

/// A folder that files are written below: never outside it, never through a link in it.
class TargetFolder {
public:
    /// Opens the folder, making it if it is missing. Throws `Failure`.
    explicit TargetFolder(std::string path);

    /// A file below the folder that is being written; removed again unless `finish` was called.
    class File {
    public:
        /// `name` is a part name. Makes the folders that the file needs. Throws `Failure` for a name that leads
        /// nowhere below the folder, and for a file that exists unless it may be overwritten.
        File(TargetFolder const& target, std::string const& name, Overwrite overwrite);
        File(File const&) = delete;
        File& operator=(File const&) = delete;
        ~File();

        void write(std::string_view data);

        /// Closes the file, and lets it take its name.
        void finish();

    private:
        [[noreturn]] void fail(int error) const;

        std::string shownPath_; // for messages
        OwnedDescriptor folder_;
        OwnedDescriptor file_;
        std::string name_;        // that the file is to have
        std::string writtenName_; // that it has until `finish`; empty: nothing to remove
    };

private:
    std::string path_;
    OwnedDescriptor folder_;
};

} // namespace opctext
