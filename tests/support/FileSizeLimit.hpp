#pragma once

#include <cstdint>

namespace testsupport {

/// Keeps the process from writing any file beyond a number of bytes, as a full disk would, for as long as it lives.
/// Writes beyond it fail with EFBIG.
class FileSizeLimit {
public:
    explicit FileSizeLimit(std::uint64_t bytes);
    FileSizeLimit(FileSizeLimit const&) = delete;
    FileSizeLimit& operator=(FileSizeLimit const&) = delete;
    ~FileSizeLimit();

private:
    std::uint64_t earlier_;
    void (*earlierHandler_)(int);
};

} // namespace testsupport
