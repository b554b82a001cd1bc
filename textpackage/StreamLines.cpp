#include <textpackage/StreamLines.hpp>

#include <algorithm>
#include <istream>
#include <streambuf>

#include <textpackage/PartScanner.hpp>
#include <textpackage/findMarkerLine.hpp>

namespace opc::textpackage {

namespace {

/// Opens what `std::streambuf` shows to those that derive from it: the characters that it holds in memory.
class Buffer : public std::streambuf {
public:
    static std::string_view held(std::streambuf const& buffer) {
        auto const* const begin = (buffer.*&Buffer::gptr)();
        return {begin, static_cast<std::size_t>((buffer.*&Buffer::egptr)() - begin)};
    }

    static void drop(std::streambuf& buffer, std::size_t count) { (buffer.*&Buffer::gbump)(static_cast<int>(count)); }
};

constexpr std::size_t MostAtOnce = std::size_t{1} << 30; // the buffer of a stream in memory may hold more than an int

/// Whether a line of which this is the beginning may be a marker line.
bool mayBeMarker(std::string_view beginning) {
    auto const compared = std::min(beginning.size(), PartScanner::markerBeginning.size());
    return beginning.substr(0, compared) == PartScanner::markerBeginning.substr(0, compared);
}

} // namespace

bool StreamLines::next() {
    return take(Content::Keep);
}

bool StreamLines::nextMarker() {
    do {
        skipToMarker();
        if (!take(Content::Drop))
            return false;
    } while (line_.substr(0, PartScanner::markerBeginning.size()) != PartScanner::markerBeginning);
    return true;
}

bool StreamLines::take(Content content) {
    std::istream::sentry const ready(stream_, true);
    if (!ready)
        return false;
    joined_.clear();
    for (bool isAtLineBegin = true;; isAtLineBegin = false) {
        auto const text = buffered();
        if (text.empty()) {
            if (!stream_.bad())
                stream_.setstate(isAtLineBegin ? std::ios_base::eofbit | std::ios_base::failbit
                                               : std::ios_base::eofbit);
            line_ = joined_;
            return !stream_.fail();
        }
        auto const lineFeed = text.find('\n');
        line_ = text.substr(0, lineFeed);
        if (!isAtLineBegin || lineFeed == std::string_view::npos) {
            if (content == Content::Keep || mayBeMarker(joined_))
                joined_ += line_;
            line_ = joined_;
        }
        if (lineFeed != std::string_view::npos) {
            consume(lineFeed + 1);
            return true;
        }
        consume(text.size());
    }
}

/// From the beginning of a line to that of the next marker line, or of the last line that the buffer holds.
void StreamLines::skipToMarker() {
    std::istream::sentry const ready(stream_, true);
    if (!ready)
        return;
    auto const text = buffered();
    if (mayBeMarker(text))
        return;
    auto const found = findMarkerLine(text);
    if (found != std::string_view::npos)
        return consume(found);
    auto const lineFeed = text.rfind('\n');
    if (lineFeed != std::string_view::npos)
        consume(lineFeed + 1);
}

/// What the stream's buffer holds, at least one character where the stream has not ended.
std::string_view StreamLines::buffered() {
    auto& buffer = *stream_.rdbuf();
    try {
        auto const next = buffer.sgetc();
        if (Buffer::traits_type::eq_int_type(next, Buffer::traits_type::eof()))
            return {};
        unbuffered_ = Buffer::traits_type::to_char_type(next);
    } catch (...) {
        reportBadStream();
        return {};
    }
    auto const held = Buffer::held(buffer);
    return held.empty() ? std::string_view(&unbuffered_, 1) : held.substr(0, MostAtOnce);
}

void StreamLines::consume(std::size_t count) {
    auto& buffer = *stream_.rdbuf();
    if (Buffer::held(buffer).empty())
        buffer.sbumpc();
    else
        Buffer::drop(buffer, count);
}

/// To be called while the exception of the stream's buffer is handled.
void StreamLines::reportBadStream() {
    try {
        stream_.setstate(std::ios_base::badbit);
    } catch (std::ios_base::failure const&) {
        // The exception that is being handled says more.
    }
    if ((stream_.exceptions() & std::ios_base::badbit) != 0)
        throw;
}

} // namespace opc::textpackage
