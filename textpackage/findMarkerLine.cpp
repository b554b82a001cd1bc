#include <textpackage/findMarkerLine.hpp>

#include <algorithm>
#include <string>

#include <textpackage/PartScanner.hpp>

namespace opc::textpackage {

namespace {

constexpr std::size_t BlockBytes = 1024; // enough for the compiler, and not much more than a small part

/// Whether a marker line may begin in a block, whose last byte is not the last of the text. No branch and no way out of
/// the loop, so that the compiler takes many bytes at once: it has to look at every byte of a package.
bool mayHoldMarkerLine(char const* block) {
    unsigned char least = 0xFF; // becomes 0 at a line break with an underscore behind it
    for (std::size_t i = 0; i < BlockBytes; ++i)
        least = std::min(least, static_cast<unsigned char>((block[i] ^ '\n') | (block[i + 1] ^ '_')));
    return least == 0;
}

} // namespace

std::size_t findMarkerLine(std::string_view text) {
    static std::string const wanted = '\n' + std::string(PartScanner::markerBeginning);
    std::size_t block = 0;
    for (; text.size() - block > BlockBytes; block += BlockBytes) {
        if (!mayHoldMarkerLine(text.data() + block))
            continue;
        auto const found = text.substr(block, BlockBytes + wanted.size() - 1).find(wanted);
        if (found != std::string_view::npos)
            return block + found + 1;
    }
    auto const found = text.find(wanted, block);
    return found == std::string_view::npos ? found : found + 1;
}

} // namespace opc::textpackage
