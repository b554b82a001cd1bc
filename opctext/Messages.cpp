#include <opctext/Messages.hpp>

#include <cstdio>
#include <mutex>

#include <fmt/format.h>

namespace opctext {

void tell(std::string const& message) {
    static std::mutex mutex;
    std::lock_guard const lock(mutex);
    std::fprintf(stderr, "opctext: %s\n", printable(message).c_str());
}

std::string printable(std::string const& text) {
    std::string result;
    for (char const c : text) {
        auto const byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7F)
            result += fmt::format("\\x{:02X}", byte);
        else
            result += c;
    }
    return result;
}

} // namespace opctext
