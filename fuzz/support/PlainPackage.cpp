#include <fuzz/support/PlainPackage.hpp>

#include <algorithm>
#include <set>

#include <fuzz/support/plainText.hpp>

namespace fuzz {

namespace {

constexpr std::string_view PackageBegin = "__ZKOPC_PACKAGE_BEGIN__";
constexpr std::string_view PartBegin = "__ZKOPC_PART_BEGIN__";
constexpr std::string_view PackageEnd = "__ZKOPC_PACKAGE_END__";
constexpr std::size_t MostHeaderLines = 21;

bool beginsWith(std::string_view text, std::string_view beginning) {
    return text.substr(0, beginning.size()) == beginning;
}

std::string_view withoutLast(std::string_view text, char character) {
    return !text.empty() && text.back() == character ? text.substr(0, text.size() - 1) : text;
}

/// Fills in name and form from a part-begin line; returns the fault.
std::string parsePartBegin(std::string_view line, PlainPart& part) {
    if (line.size() == PartBegin.size())
        return Nameless;
    auto const rest = line.substr(PartBegin.size() + 1);
    auto const space = rest.find(' ');
    part.isBase64 = space != std::string_view::npos && rest.substr(space) == " BASE64";
    auto const name = utf16Of(rest.substr(0, space));
    part.name = name.value_or(u"");
    return name ? "" : IllFormed;
}

} // namespace

std::optional<std::string> PlainPart::content() const {
    if (!isBase64)
        return stored;
    std::string bytes;
    for (auto const line : linesOf(stored)) {
        auto const decoded = base64Bytes(line);
        if (!decoded)
            return {};
        bytes += *decoded;
    }
    return bytes;
}

bool PlainPart::holdsForbiddenText() const {
    auto const lines = linesOf(stored);
    return isBase64 && std::any_of(lines.begin(), lines.end(), [](std::string_view line) {
               return base64Bytes(line).value_or("").find(ForbiddenText) != std::string::npos;
           });
}

std::map<std::u16string, PlainPart> PlainPackage::last() const {
    std::map<std::u16string, PlainPart> result;
    for (auto const& part : parts) {
        if (part.name.rfind(u"/[trash]", 0) != 0)
            result[part.name] = part;
    }
    return result;
}

PlainPackage readPlainly(std::string_view text) {
    PlainPackage package;
    auto const lines = linesOf(text);
    auto line = lines.begin();
    for (; line != lines.end() && !beginsWith(*line, PackageBegin); ++line) {
        if (package.headerLines.size() == MostHeaderLines) {
            package.fault = "Didn't find ZKOPC_PACKAGE_BEGIN marker";
            return package;
        }
        package.headerLines.emplace_back(*line);
    }
    if (line == lines.end()) {
        package.fault = "Reached end of file without finding ZKOPC_PACKAGE_BEGIN marker";
        return package;
    }

    std::optional<PlainPart> part;
    auto const endPart = [&] {
        if (part) {
            part->stored = withoutLast(withoutLast(part->stored, '\n'), '\r');
            package.parts.push_back(*part);
        }
        part.reset();
    };
    for (++line; line != lines.end(); ++line) {
        auto const bare = withoutLast(*line, '\r');
        if (bare == PackageEnd) {
            endPart();
            return package;
        }
        if (beginsWith(bare, PartBegin)) {
            endPart();
            package.fault = parsePartBegin(bare, part.emplace());
            if (!package.fault.empty())
                return package;
        } else if (part) {
            part->stored += std::string(*line) + '\n';
        } else if (!bare.empty()) {
            package.fault = "Didn't find ZKOPC_PART_BEGIN marker";
            return package;
        }
    }
    return package;
}

bool isSurelyUsable(std::u16string const& name) {
    // What the library shortens for the file system has a "~"; a longer path than this the system may refuse.
    constexpr std::size_t LongestPath = 1000;
    if (name.size() < 2 || name.size() > LongestPath || name.front() != u'/' || name.back() == u'/')
        return false;
    auto const asFolder = name + u'/';
    return name.find(u'\0') == std::u16string::npos && name.find(u'~') == std::u16string::npos &&
           asFolder.find(u"//") == std::u16string::npos && asFolder.find(u"/./") == std::u16string::npos &&
           asFolder.find(u"/../") == std::u16string::npos;
}

bool areSurelyUsable(std::vector<std::u16string> const& names) {
    std::set<std::u16string> folders;
    for (auto const& name : names) {
        if (!isSurelyUsable(name))
            return false;
        for (auto slash = name.find(u'/', 1); slash != std::u16string::npos; slash = name.find(u'/', slash + 1))
            folders.insert(name.substr(0, slash));
    }
    return std::none_of(names.begin(), names.end(), [&](auto const& name) { return folders.count(name) != 0; });
}

} // namespace fuzz
