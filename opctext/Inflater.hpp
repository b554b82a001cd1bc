#pragma once

#include <functional>
#include <string_view>

#include <zlib.h>

namespace opctext {

/// Inflates the deflated data of a ZIP member, and knows whether they end where they should.
class Inflater {
public:
    using OnBlock = std::function<void(std::string_view)>;

    Inflater();
    Inflater(Inflater const&) = delete;
    Inflater& operator=(Inflater const&) = delete;
    ~Inflater();

    /// Takes the next deflated bytes and hands on what they inflate to. False where they are damaged, or go on behind
    /// their end.
    bool take(std::string_view deflated, OnBlock const& onBlock);

    /// Whether the end of the data was there.
    bool isComplete() const { return isComplete_; }

private:
    z_stream stream_{};
    bool isComplete_ = false;
};

} // namespace opctext
