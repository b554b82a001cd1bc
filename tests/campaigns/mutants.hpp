#pragma once

#include <cstdlib>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

/// What `mutations.py` puts into its copy of the library: every condition there asks whether it is the one to be wrong.
/// Each of the two libraries has all of this for itself.
namespace mutants {

/// Which condition is wrong in this process; none where the environment names none.
inline int const wrongOne = [] {
    char const* const number = std::getenv("TEXTPACKAGE_MUTANT");
    return number == nullptr ? -1 : std::atoi(number);
}();

/// A file with a byte for each condition, 1 once a process came by it; null where nobody wants to know.
inline unsigned char* const visited = []() -> unsigned char* {
    char const* const path = std::getenv("TEXTPACKAGE_MUTANTS_VISITED");
    int const descriptor = path == nullptr ? -1 : ::open(path, O_RDWR | O_CLOEXEC);
    if (descriptor == -1)
        return nullptr;
    auto const size = static_cast<std::size_t>(::lseek(descriptor, 0, SEEK_END));
    void* const bytes = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
    ::close(descriptor);
    return bytes == MAP_FAILED ? nullptr : static_cast<unsigned char*>(bytes);
}();

inline bool isWrong(int number) {
    if (visited != nullptr)
        visited[number] = 1;
    return number == wrongOne;
}

} // namespace mutants
