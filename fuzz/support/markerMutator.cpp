// Makes new inputs for the targets that read package texts: it knows what a line is, what the marker lines look like
// and what is delicate about them. Half of the time the fuzzer's own mutations of bytes are used.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t maxSize);

namespace {

using std::string_literals::operator""s;

std::vector<std::string> const& delicateLines() {
    static std::vector<std::string> const lines{
        "__ZKOPC_PACKAGE_BEGIN__",
        "__ZKOPC_PACKAGE_BEGIN__ V3508k",
        "__ZKOPC_PACKAGE_BEGIN__V",
        "__ZKOPC_PACKAGE_END__",
        "__ZKOPC_PACKAGE_END__ ",
        "__ZKOPC_PACKAGE_END_",
        "__ZKOPC_PART_BEGIN__",
        "__ZKOPC_PART_BEGIN__ ",
        "__ZKOPC_PART_BEGIN__  BASE64",
        "__ZKOPC_PART_BEGIN__ /[Content_Types].xml",
        "__ZKOPC_PART_BEGIN__ /[content_types].xml",
        "__ZKOPC_PART_BEGIN__ /[Content_Types].xml BASE64",
        "__ZKOPC_PART_BEGIN__ /_rels/.rels",
        "__ZKOPC_PART_BEGIN__ .rels",
        "__ZKOPC_PART_BEGIN__ /a",
        "__ZKOPC_PART_BEGIN__ /A",
        "__ZKOPC_PART_BEGIN__ a",
        "__ZKOPC_PART_BEGIN__ /a/b",
        "__ZKOPC_PART_BEGIN__ /b BASE64",
        "__ZKOPC_PART_BEGIN__ /b base64",
        "__ZKOPC_PART_BEGIN__\t/c",
        "__ZKOPC_PART_BEGIN__ /[trash]",
        "__ZKOPC_PART_BEGIN__ /[trash]/x",
        "__ZKOPC_PART_BEGIN__ /metadata/m",
        "__ZKOPC_PART_BEGIN__ /METADATA/m BASE64",
        "__ZKOPC_PART_BEGIN__ /../x BASE64",
        "__ZKOPC_PART_BEGIN__ /_zkopc_packageCopy.txt BASE64",
        "__ZKOPC_PART_BEGIN__ /\xC3\xA4",
        "__ZKOPC_PART_BEGIN__ /\xF0\x9F\x98\x80",
        "__ZKOPC_PART_BEGIN__ /\xED\xA0\x80",
        "__ZKOPC_PART_BEGIN__ /" + std::string(251, 'n'),
        "__ZKOPC_PART_BEGIN__ /" + std::string(600, 'n') + " BASE64",
        "__ZKOPC_PA",
        "X1paS09QQ19QQQ==", // __ZKOPC_PA
        "AAECAwQ=",
        "AAEC",
        "AA==",
        "AB==",
        "=",
        "%%",
        "",
        "\r",
    };
    return lines;
}

std::vector<std::string> const& delicateTexts() {
    static std::vector<std::string> const texts{
        "\r", "\n",   "\r\n",       "\r\r\n", "\0"s,          " ",          " BASE64", "=",    "==",
        "/",  "/../", "__ZKOPC_PA", "\t",     "\xEF\xBB\xBF", "PK\x03\x04", "~",       "\xC3", "\xF0\x9F\x98\x80"};
    return texts;
}

class Mutation {
public:
    Mutation(std::string text, unsigned seed) : text_(std::move(text)), random_(seed) { split(); }

    std::string take() {
        for (auto edits = below(3) + 1; edits > 0; --edits) {
            edit();
            lines_.erase(std::remove(lines_.begin(), lines_.end(), ""), lines_.end());
        }
        join();
        return text_;
    }

private:
    std::size_t below(std::size_t limit) { return limit == 0 ? 0 : random_() % limit; }

    /// Each line with its line break.
    void split() {
        lines_.clear();
        for (std::size_t begin = 0; begin < text_.size();) {
            auto const end = std::min(text_.find('\n', begin), text_.size() - 1) + 1;
            lines_.push_back(text_.substr(begin, end - begin));
            begin = end;
        }
    }

    void join() {
        text_.clear();
        for (auto const& line : lines_)
            text_ += line;
    }

    template <class Value>
    Value const& anyOf(std::vector<Value> const& values) {
        return values[below(values.size())];
    }

    std::size_t anyLine() { return below(lines_.size()); }

    /// A line that begins like a marker, if there is one.
    std::size_t anyMarkerLine() {
        std::vector<std::size_t> markers;
        for (std::size_t i = 0; i < lines_.size(); ++i) {
            if (lines_[i].compare(0, 2, "__") == 0)
                markers.push_back(i);
        }
        return markers.empty() ? anyLine() : anyOf(markers);
    }

    void insertLine(std::string const& line) {
        lines_.insert(lines_.begin() + static_cast<std::ptrdiff_t>(below(lines_.size() + 1)), line);
    }

    void edit() {
        if (lines_.empty())
            return insertLine(anyOf(delicateLines()) + "\n");
        auto& line = lines_[anyLine()];
        switch (below(12)) {
        case 0:
            return insertLine(anyOf(delicateLines()) + (below(4) == 0 ? "\r\n" : "\n"));
        case 1:
            return insertLine(std::string(lines_[below(2) == 0 ? anyLine() : anyMarkerLine()]));
        case 2:
            lines_.erase(lines_.begin() + static_cast<std::ptrdiff_t>(anyLine()));
            return;
        case 3:
            return std::swap(line, lines_[anyLine()]);
        case 4:
            return alter(lines_[anyMarkerLine()]);
        case 5:
            return alter(line);
        case 6:
            return changeLineEnd(line);
        case 7:
            return changeAllLineEnds();
        case 8:
            return insertLine(base64Line() + "\n");
        case 9:
            return copyBlock();
        case 10:
            line.insert(below(line.size() + 1), anyOf(delicateTexts()));
            return;
        default:
            return cut();
        }
    }

    /// Changes, adds or removes one byte.
    void alter(std::string& line) {
        auto const at = below(line.size());
        switch (below(3)) {
        case 0:
            line[at] = static_cast<char>(random_());
            return;
        case 1:
            line.insert(at, 1, line[at]);
            return;
        default:
            line.erase(at, 1);
        }
    }

    void changeLineEnd(std::string& line) {
        static std::vector<std::string> const ends{"\n", "\r\n", "\r\r\n", "\r", ""};
        auto const end = line.find_last_not_of("\r\n");
        line.erase(end == std::string::npos ? 0 : end + 1);
        line += anyOf(ends);
    }

    void changeAllLineEnds() {
        bool const withCarriageReturn = below(2) == 0;
        for (auto& line : lines_) {
            if (line.back() != '\n')
                continue;
            line.erase(line.find_last_not_of("\r\n") + 1);
            line += withCarriageReturn ? "\r\n" : "\n";
        }
    }

    /// Most of the time one that can be decoded.
    std::string base64Line() {
        constexpr char Digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
        std::string line;
        for (auto groups = below(20); groups > 0; --groups) {
            for (int i = 0; i < 4; ++i)
                line += Digits[below(64)];
        }
        if (!line.empty() && below(3) == 0)
            line.replace(line.size() - 2, 2, below(2) == 0 ? "A=" : "==");
        return line;
    }

    void copyBlock() {
        auto const begin = anyLine();
        auto const count = std::min<std::size_t>(below(8) + 1, lines_.size() - begin);
        std::vector<std::string> const block(lines_.begin() + static_cast<std::ptrdiff_t>(begin),
                                             lines_.begin() + static_cast<std::ptrdiff_t>(begin + count));
        lines_.insert(lines_.begin() + static_cast<std::ptrdiff_t>(anyLine()), block.begin(), block.end());
    }

    /// Ends the text early, in the middle of a line.
    void cut() {
        join();
        text_.resize(below(text_.size()));
        split();
    }

    std::string text_;
    std::vector<std::string> lines_;
    std::minstd_rand random_;
};

} // namespace

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t maxSize,
                                               unsigned seed) {
    if (seed % 2 == 0)
        return LLVMFuzzerMutate(data, size, maxSize);
    auto const text = Mutation(std::string(reinterpret_cast<char const*>(data), size), seed).take();
    auto const newSize = std::min(text.size(), maxSize);
    std::memcpy(data, text.data(), newSize);
    return newSize;
}
