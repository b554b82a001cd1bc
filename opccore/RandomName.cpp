#include <opccore/RandomName.hpp>

#include <array>
#include <cstdlib>

#include <unistd.h>

#include <opccore/SystemError.hpp>

namespace opc::detail {

std::string randomName() {
    std::array<unsigned char, 16> bytes{};
    if (::getentropy(bytes.data(), bytes.size()) == -1)
        throwSystemError("Could not get random bytes for a name in", temporaryFolder());

    std::string name;
    for (unsigned const byte : bytes) {
        name += "0123456789abcdef"[byte >> 4];
        name += "0123456789abcdef"[byte & 15];
    }
    return name;
}

std::string temporaryFolder() {
    char const* const folder = std::getenv("TMPDIR");
    return folder != nullptr && *folder != '\0' ? folder : "/tmp";
}

} // namespace opc::detail
