#pragma once

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include <cerrno>
#include <sys/mount.h>

namespace testsupport {

/// A file system of 16 pages of 4 KiB over a folder, for as long as it lives.
class SmallDisk {
public:
    static constexpr std::size_t Pages = 16;
    static constexpr std::size_t PageBytes = 4096;

    explicit SmallDisk(std::filesystem::path folder) : folder_(std::move(folder)) {
        if (::mount("tmpfs", folder_.c_str(), "tmpfs", 0, "size=64k") == -1)
            whyNot_ = std::string("no file system can be mounted here: ") + std::strerror(errno);
    }

    SmallDisk(SmallDisk const&) = delete;
    SmallDisk& operator=(SmallDisk const&) = delete;

    ~SmallDisk() {
        if (whyNot_.empty())
            ::umount2(folder_.c_str(), MNT_DETACH);
    }

    /// Why there is no such disk; empty where there is.
    std::string const& whyNot() const { return whyNot_; }

    /// Takes all but so many pages, until `release`.
    void leaveRoomFor(std::size_t pages) const {
        std::ofstream filler(folder_ / "filler", std::ios::binary);
        filler << std::string((Pages - pages) * PageBytes, 'x');
    }

    void release() const { std::filesystem::remove(folder_ / "filler"); }

private:
    std::filesystem::path folder_;
    std::string whyNot_;
};

} // namespace testsupport
