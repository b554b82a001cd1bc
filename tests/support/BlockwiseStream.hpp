#pragma once

#include <algorithm>
#include <cstddef>
#include <istream>
#include <streambuf>
#include <string>
#include <utility>

namespace testsupport {

/// A stream whose buffer holds `blockBytes` of its text at a time; none at all where that is 0, when it gives its
/// characters one by one.
class BlockwiseStream : public std::istream {
public:
    BlockwiseStream(std::string text, std::size_t blockBytes)
        : std::istream(nullptr),
          buffer_(std::move(text), blockBytes) {
        rdbuf(&buffer_);
    }

private:
    class Buffer : public std::streambuf {
    public:
        Buffer(std::string text, std::size_t blockBytes) : text_(std::move(text)), blockBytes_(blockBytes) {}

    protected:
        int_type underflow() override {
            if (taken_ == text_.size())
                return traits_type::eof();
            if (blockBytes_ > 0) {
                auto const count = std::min(blockBytes_, text_.size() - taken_);
                setg(&text_[taken_], &text_[taken_], &text_[taken_] + count);
                taken_ += count;
                return traits_type::to_int_type(*gptr());
            }
            return traits_type::to_int_type(text_[taken_]);
        }

        int_type uflow() override {
            auto const character = underflow();
            if (traits_type::eq_int_type(character, traits_type::eof()))
                return character;
            if (blockBytes_ > 0)
                gbump(1);
            else
                ++taken_;
            return character;
        }

    private:
        std::string text_;
        std::size_t blockBytes_;
        std::size_t taken_ = 0; // of the text, into the buffer or by the reader
    };

    Buffer buffer_;
};

} // namespace testsupport
