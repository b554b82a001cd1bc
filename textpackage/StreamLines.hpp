#pragma once

#include <cstddef>
#include <iosfwd>
#include <string>
#include <string_view>

namespace opc::textpackage {

/// The lines of a stream, taken as `std::getline` takes them and with the same effect on the stream's state and
/// position, but read where they stand in the stream's own buffer: only a line that crosses the end of the buffer is
/// copied.
///
/// Errors:  an exception from the stream's buffer sets `badbit` and passes through where the stream's exception mask
///          has that bit; where it has not, the lines end there.
/// Threads: one at a time.
class StreamLines {
public:
    /// Borrows the stream.
    explicit StreamLines(std::istream& stream) : stream_(stream) {}

    /// Takes the next line; false at the end of the stream.
    bool next();

    /// Takes lines up to and with the next one that begins as the markers do; false where there is none. Needs no
    /// memory for the lines that it passes over, however long they are.
    bool nextMarker();

    /// The line that was taken last, without its LF. Valid until the stream or this object is used again.
    std::string_view line() const { return line_; }

private:
    enum class Content { Keep, Drop };

    bool take(Content content);
    void skipToMarker();
    std::string_view buffered();
    void consume(std::size_t count);
    void reportBadStream();

    std::istream& stream_;
    std::string_view line_; // in the stream's buffer, or in joined_
    std::string joined_;    // a line that crossed the end of the buffer
    char unbuffered_ = 0;   // the next character of a stream whose buffer holds none
};

} // namespace opc::textpackage
