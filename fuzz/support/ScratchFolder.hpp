#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace fuzz {

/// Two folders for as long as the process lives: one for the package file, and one that is the system's temporary area
/// for the library (TMPDIR). Made where TMPDIR pointed before.
class ScratchFolder {
public:
    /// The one of this process, emptied but for what a target itself keeps in it.
    static ScratchFolder& get();

    ScratchFolder(ScratchFolder const&) = delete;
    ScratchFolder& operator=(ScratchFolder const&) = delete;
    ~ScratchFolder();

    /// The path of a file of that name beside the package, in the system's form.
    std::string path(std::string_view name) const;
    std::u16string corePath(std::string_view name) const;

    void write(std::string_view name, std::string_view content) const;

    /// The content of a file; none where there is no such file.
    std::optional<std::string> read(std::string_view name) const;

    void remove(std::string_view name) const;

    /// Ends the process where the library has left something in the temporary area, or where there is anything but
    /// `expectedFiles` files beside the package.
    void requireNothingLeft(std::size_t expectedFiles) const;

private:
    ScratchFolder();

    std::string root_;
};

} // namespace fuzz
