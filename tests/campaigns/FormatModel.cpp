#include <tests/campaigns/FormatModel.hpp>

#include <algorithm>
#include <cstdint>
#include <optional>
#include <stdexcept>

namespace campaigns {

namespace {

constexpr std::string_view PackageBegin = "__ZKOPC_PACKAGE_BEGIN__";
constexpr std::string_view PartBegin = "__ZKOPC_PART_BEGIN__";
constexpr std::string_view PackageEnd = "__ZKOPC_PACKAGE_END__";
constexpr std::string_view ContentTypes = "/[Content_Types].xml";
constexpr std::size_t MostHeaderLines = 21;

constexpr char IllFormed[] = "Ill-formed UTF-8 at byte";
constexpr char NoContentTypes[] = "Content types stream does not exist";

bool beginsWith(std::string_view text, std::string_view beginning) {
    return text.substr(0, beginning.size()) == beginning;
}

struct Line {
    std::size_t begin;      ///< offset in the text
    std::string_view bytes; ///< without the LF
    std::size_t next;       ///< offset of what follows the LF

    std::string_view withoutCr() const {
        return !bytes.empty() && bytes.back() == '\r' ? bytes.substr(0, bytes.size() - 1) : bytes;
    }
};

std::vector<Line> linesOf(std::string_view text) {
    std::vector<Line> lines;
    for (std::size_t begin = 0; begin < text.size();) {
        auto end = begin;
        while (end < text.size() && text[end] != '\n')
            ++end;
        lines.push_back({begin, text.substr(begin, end - begin), std::min(end + 1, text.size())});
        begin = lines.back().next;
    }
    return lines;
}

/// The UTF-16 of a well-formed text; none of an ill-formed one.
std::optional<std::u16string> toUtf16(std::string_view text) {
    std::u16string result;
    for (std::size_t i = 0; i < text.size();) {
        unsigned const first = static_cast<unsigned char>(text[i]);
        std::size_t const size = first < 0x80 ? 1 : first < 0xC0 ? 0 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
        if (size == 0 || first > 0xF4 || i + size > text.size())
            return std::nullopt;
        std::uint32_t point = size == 1 ? first : first & (0x7FU >> size);
        for (std::size_t k = 1; k < size; ++k) {
            unsigned const next = static_cast<unsigned char>(text[i + k]);
            if ((next & 0xC0U) != 0x80)
                return std::nullopt;
            point = point << 6 | (next & 0x3FU);
        }
        std::uint32_t const least = size == 1 ? 0 : size == 2 ? 0x80 : size == 3 ? 0x800 : 0x10000;
        if (point < least || point > 0x10FFFF || (point >= 0xD800 && point < 0xE000))
            return std::nullopt;
        if (point >= 0x10000) {
            result += static_cast<char16_t>(0xD800 + ((point - 0x10000) >> 10));
            result += static_cast<char16_t>(0xDC00 + ((point - 0x10000) & 0x3FF));
        } else {
            result += static_cast<char16_t>(point);
        }
        i += size;
    }
    return result;
}

/// The name as names are compared: the case of ASCII letters makes no difference.
std::u16string folded(std::string const& name) {
    auto units = *toUtf16(name);
    for (auto& unit : units)
        unit = unit >= u'A' && unit <= u'Z' ? static_cast<char16_t>(unit + 32) : unit;
    return units;
}

/// The name and the flag of a part-begin line.
ModelPart partOf(std::string_view line) {
    auto const rest = line.substr(PartBegin.size() + 1);
    auto const nameEnd = std::find(rest.begin(), rest.end(), ' ');
    ModelPart part;
    part.name.assign(rest.begin(), nameEnd);
    part.isBase64 = nameEnd != rest.end() && rest.substr(part.name.size() + 1) == "BASE64";
    return part;
}

/// Content without the one line break, LF or CR LF, that was written behind it.
std::string_view withoutLastLineBreak(std::string_view content) {
    for (char const c : {'\n', '\r'}) {
        if (content.empty() || content.back() != c)
            break;
        content.remove_suffix(1);
    }
    return content;
}

void parseHeader(std::vector<Line> const& lines, std::size_t& at, ModelText& result) {
    for (; at < lines.size(); ++at) {
        if (beginsWith(lines[at].bytes, PackageBegin)) {
            ++at;
            return;
        }
        if (result.headerLines.size() == MostHeaderLines) {
            result.error = "Didn't find ZKOPC_PACKAGE_BEGIN marker";
            return;
        }
        result.headerLines.emplace_back(lines[at].bytes);
    }
    result.error = "Reached end of file without finding ZKOPC_PACKAGE_BEGIN marker";
}

void parseParts(std::string_view text, std::vector<Line> const& lines, std::size_t at, ModelText& result) {
    std::optional<ModelPart> part;
    for (; at < lines.size(); ++at) {
        auto const line = lines[at].withoutCr();
        bool const isEnd = line == PackageEnd;
        bool const isBegin = beginsWith(line, PartBegin);
        if ((isEnd || isBegin) && part) {
            part->content = withoutLastLineBreak(text.substr(part->begin, lines[at].begin - part->begin));
            result.parts.push_back(*part);
            part.reset();
        }
        if (isEnd)
            return;
        if (!isBegin && part) {
            part->lines.emplace_back(line);
        } else if (isBegin && line.size() == PartBegin.size()) {
            result.error = "std::out_of_range";
        } else if (isBegin) {
            part = partOf(line);
            part->begin = lines[at].next;
            if (!toUtf16(part->name))
                result.error = IllFormed;
        } else if (!line.empty()) {
            result.error = "Didn't find ZKOPC_PART_BEGIN marker";
        }
        if (!result.error.empty())
            return;
    }
}

/// The bytes of one line of Base64; none where it is none.
std::optional<std::string> decoded(std::string_view line) {
    std::string digits;
    std::size_t padding = 0;
    for (char const c : line) {
        if (c == ' ' || (c >= '\t' && c <= '\r'))
            continue;
        padding += c == '=' ? 1 : 0;
        if (c != '=' && padding > 0)
            return std::nullopt;
        digits += c == '=' ? 'A' : c;
    }
    if (digits.size() % 4 != 0 || padding > 2)
        return std::nullopt;

    static std::string const alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string bits;
    for (char const digit : digits) {
        auto const value = alphabet.find(digit);
        if (value == std::string::npos)
            return std::nullopt;
        for (int bit = 5; bit >= 0; --bit)
            bits += (value >> bit & 1) != 0 ? '1' : '0';
    }
    auto const used = (bits.size() - 6 * padding) / 8 * 8;
    if (bits.find('1', used) != std::string::npos)
        return std::nullopt;
    std::string bytes;
    for (std::size_t at = 0; at < used; at += 8)
        bytes += static_cast<char>(std::stoi(bits.substr(at, 8), nullptr, 2));
    return bytes;
}

constexpr char Undecodable[] = "Unable to decode Base64:";

std::vector<std::string> splitAtLf(std::string const& content) {
    std::vector<std::string> lines;
    for (auto const& line : linesOf(content))
        lines.emplace_back(line.bytes);
    return lines;
}

/// A binary part decodes to a file of its own, line by line, and files take no content with a marker in it.
ModelContent packageContent(ModelPart const& part) {
    ModelContent content{part.begin, part.content, ""};
    if (!part.isBase64)
        return content;
    content.bytes.clear();
    if (!isFileName(part.name)) {
        content.error = "Not a usable part name:";
        return content;
    }
    for (auto const& line : splitAtLf(part.content)) {
        auto const bytes = decoded(line);
        content.error = !bytes                                           ? Undecodable
                        : bytes->find("__ZKOPC_PA") != std::string::npos ? "The string __ZKOPC_PA is not allowed"
                                                                         : "";
        if (!content.error.empty())
            return content;
        content.bytes += *bytes;
    }
    return content;
}

ModelContent lightReaderContent(ModelPart const& part) {
    ModelContent content{part.begin, "", ""};
    for (std::size_t i = 0; i < part.lines.size(); ++i) {
        if (!part.isBase64) {
            content.bytes += (i > 0 ? "\n" : "") + part.lines[i];
            continue;
        }
        auto const bytes = decoded(part.lines[i]);
        if (!bytes) {
            content.error = Undecodable;
            return content;
        }
        content.bytes += *bytes;
    }
    return content;
}

/// Which parts the light reader keeps, going through them in the order of the text.
class LightReaderChoice {
public:
    explicit LightReaderChoice(std::vector<std::string> const& requests) {
        for (auto const& name : requests)
            requests_.push_back(folded(name));
        std::sort(requests_.begin(), requests_.end());
    }

    bool keeps(std::string const& name, std::size_t keptSoFar) {
        auto const wanted = folded(name);
        if (wanted == u"/[trash]")
            return false;
        if (keptSoFar < 3)
            return true;
        if (wanted.substr(0, 5) == u".rels")
            return false;
        if (wanted.substr(0, 10) == u"/metadata/")
            return true;
        searchStarted_ = true;
        while (!requests_.empty() && requests_.front() < wanted)
            requests_.erase(requests_.begin());
        if (requests_.empty() || requests_.front() != wanted)
            return false;
        requests_.erase(requests_.begin());
        return true;
    }

    bool isDone() const { return searchStarted_ && requests_.empty(); }

private:
    std::vector<std::u16string> requests_;
    bool searchStarted_ = false;
};

void requireContentTypes(ModelPackage& package) {
    if (package.error.empty() && package.parts.count(std::string(ContentTypes)) == 0)
        package.error = NoContentTypes;
}

} // namespace

ModelText parse(std::string_view text) {
    auto const lines = linesOf(text);
    ModelText result;
    std::size_t at = 0;
    parseHeader(lines, at, result);
    if (result.error.empty())
        parseParts(text, lines, at, result);
    return result;
}

ModelPackage expectedPackage(ModelText const& text, bool isEmptyFile) {
    ModelPackage package;
    package.error = isEmptyFile ? "Could not create TextFileBuffer" : text.error;
    for (auto const& line : text.headerLines) {
        if (!toUtf16(line)) {
            package.error = IllFormed;
            return package;
        }
        package.header += (package.header.empty() ? "" : "\n") + line;
    }
    for (auto const& part : text.parts) {
        if (!beginsWith(part.name, "/[trash]"))
            package.parts[part.name] = packageContent(part);
    }
    requireContentTypes(package);
    return package;
}

ModelPackage expectedLightReader(ModelText const& text, std::vector<std::string> const& requests) {
    ModelPackage package;
    LightReaderChoice choice(requests);
    for (auto const& part : text.parts) {
        if (choice.keeps(part.name, package.parts.size()))
            package.parts[part.name] = lightReaderContent(part);
        if (choice.isDone()) { // nothing behind this part is looked at, nor what is wrong there
            requireContentTypes(package);
            return package;
        }
    }
    package.error = text.error;
    requireContentTypes(package);
    return package;
}

bool isFileName(std::string const& name) {
    std::string segment;
    for (char const c : name.substr(beginsWith(name, "/") ? 1 : 0) + "/") {
        if (c == '\0')
            return false;
        if (c != '/') {
            segment += c;
        } else if (segment.empty() || segment == "." || segment == "..") {
            return false;
        } else {
            segment.clear();
        }
    }
    return true;
}

bool fitIntoOneFolder(std::set<std::string> const& names) {
    std::set<std::string> paths;
    for (auto const& name : names) {
        if (!paths.insert(beginsWith(name, "/") ? name : "/" + name).second)
            return false;
    }
    for (auto const& path : paths) {
        for (auto slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
            if (paths.count(path.substr(0, slash)) != 0)
                return false;
        }
    }
    return true;
}

} // namespace campaigns
