#pragma once

#include <utility>

#include <unistd.h>

namespace opctext {

/// Owns a file descriptor of the system; -1 for none.
class OwnedDescriptor {
public:
    explicit OwnedDescriptor(int value = -1) : value_(value) {}
    OwnedDescriptor(OwnedDescriptor&& other) noexcept : value_(other.release()) {}
    OwnedDescriptor& operator=(OwnedDescriptor&& other) noexcept {
        std::swap(value_, other.value_);
        return *this;
    }
    ~OwnedDescriptor() {
        if (value_ != -1)
            ::close(value_);
    }

    int get() const { return value_; }
    int release() { return std::exchange(value_, -1); }

private:
    int value_;
};

} // namespace opctext
