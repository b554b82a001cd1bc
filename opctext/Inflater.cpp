#include <opctext/Inflater.hpp>

#include <array>
#include <new>

namespace opctext {

Inflater::Inflater() {
    if (::inflateInit2(&stream_, -MAX_WBITS) != Z_OK)
        throw std::bad_alloc();
}

Inflater::~Inflater() {
    ::inflateEnd(&stream_);
}

bool Inflater::take(std::string_view deflated, OnBlock const& onBlock) {
    std::array<char, 65536> block;
    stream_.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(deflated.data()));
    stream_.avail_in = static_cast<uInt>(deflated.size());
    do {
        if (isComplete_)
            return stream_.avail_in == 0;
        stream_.next_out = reinterpret_cast<Bytef*>(block.data());
        stream_.avail_out = static_cast<uInt>(block.size());
        auto const result = ::inflate(&stream_, Z_NO_FLUSH);
        if (result != Z_OK && result != Z_STREAM_END && result != Z_BUF_ERROR)
            return false;
        isComplete_ = result == Z_STREAM_END;
        onBlock({block.data(), block.size() - stream_.avail_out});
    } while (stream_.avail_in > 0 || stream_.avail_out == 0);
    return true;
}

} // namespace opctext
