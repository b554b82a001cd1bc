#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace fuzz {

inline std::string_view asText(std::uint8_t const* data, std::size_t size) {
    return {reinterpret_cast<char const*>(data), size};
}

/// Takes values off the front of an input. At its end numbers are 0 and texts empty.
class InputReader {
public:
    explicit InputReader(std::string_view input) : rest_(input) {}

    bool atEnd() const { return rest_.empty(); }

    unsigned byte() { return atEnd() ? 0U : static_cast<unsigned char>(text(1).front()); }

    std::string text(std::size_t size) {
        std::string const result(rest_.substr(0, std::min(size, rest_.size())));
        rest_.remove_prefix(result.size());
        return result;
    }

    /// A text with its length, two bytes, before it.
    std::string sizedText() {
        auto const low = byte();
        return text(low | byte() << 8);
    }

    std::string rest() { return text(rest_.size()); }

private:
    std::string_view rest_;
};

/// An input of two texts, with a line "%%" between them; the first is empty where there is no such line.
struct TwoTexts {
    std::string first;
    std::string second;
};

inline TwoTexts splitInTwo(std::string_view input) {
    constexpr std::string_view Separator = "%%\n";
    if (input.substr(0, Separator.size()) == Separator)
        return {"", std::string(input.substr(Separator.size()))};
    auto const at = input.find("\n%%\n");
    if (at == std::string_view::npos)
        return {"", std::string(input)};
    return {std::string(input.substr(0, at + 1)), std::string(input.substr(at + 1 + Separator.size()))};
}

} // namespace fuzz
