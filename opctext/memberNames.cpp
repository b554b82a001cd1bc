#include <opctext/memberNames.hpp>

#include <cctype>
#include <string_view>

#include <fmt/format.h>
#include <utf8.h>

namespace opctext {

namespace {

bool needsEscape(char32_t character) {
    return character <= 0x20 || character == '%' || (character >= 0x7F && character < 0xA0);
}

int hexValue(char digit) {
    if (digit >= '0' && digit <= '9')
        return digit - '0';
    if (digit >= 'A' && digit <= 'F')
        return digit - 'A' + 10;
    return digit >= 'a' && digit <= 'f' ? digit - 'a' + 10 : -1;
}

void appendEscaped(std::string& name, std::string_view bytes) {
    for (char const byte : bytes)
        name += fmt::format("%{:02X}", static_cast<unsigned char>(byte));
}

} // namespace

std::string partNameOf(std::string const& memberName) {
    std::string name = "/";
    for (auto next = memberName.begin(); next != memberName.end();) {
        auto const begin = next;
        bool const isWellFormed = utf8::internal::validate_next(next, memberName.end()) == utf8::internal::UTF8_OK;
        if (!isWellFormed)
            next = begin + 1;
        std::string_view const bytes(&*begin, static_cast<std::size_t>(next - begin));
        auto first = begin;
        if (!isWellFormed || needsEscape(utf8::unchecked::next(first)))
            appendEscaped(name, bytes);
        else
            name += bytes;
    }
    return name;
}

std::string memberNameOf(std::string const& partName) {
    std::string name;
    for (std::size_t i = partName.front() == '/' ? 1 : 0; i < partName.size(); ++i) {
        int const high = partName[i] == '%' && i + 2 < partName.size() ? hexValue(partName[i + 1]) : -1;
        int const low = high >= 0 ? hexValue(partName[i + 2]) : -1;
        if (low < 0) {
            name += partName[i];
        } else {
            name += static_cast<char>(high * 16 + low);
            i += 2;
        }
    }
    return name;
}

std::pair<std::string, std::string> findFolderConflict(NamesByCaseless const& names) {
    for (auto const& [folder, shownFolder] : names) {
        auto const beginning = folder + '/';
        auto const inside = names.lower_bound(beginning);
        bool const isConflict = inside != names.end() && inside->first.compare(0, beginning.size(), beginning) == 0;
        if (!folder.empty() && isConflict)
            return {shownFolder, inside->second};
    }
    return {};
}

std::string findUnsafety(std::string const& memberName) {
    if (memberName.find('\0') != std::string::npos)
        return "its name holds a NUL";
    if (memberName.find('\\') != std::string::npos)
        return "its name holds a backslash";
    bool const hasDrive =
        memberName.size() >= 2 && std::isalpha(static_cast<unsigned char>(memberName[0])) != 0 && memberName[1] == ':';
    if (memberName.empty() || memberName.front() == '/' || hasDrive)
        return memberName.empty() ? "its name is empty" : "its name is absolute";
    for (std::size_t begin = 0; begin <= memberName.size();) {
        auto const end = std::min(memberName.find('/', begin), memberName.size());
        auto const segment = std::string_view(memberName).substr(begin, end - begin);
        if (segment.empty())
            return "its name has an empty segment";
        if (segment == "." || segment == "..")
            return fmt::format("its name has the segment \"{}\"", segment);
        begin = end + 1;
    }
    return {};
}

} // namespace opctext
