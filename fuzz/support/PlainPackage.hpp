#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace fuzz {

/// One part as it stands in a package text.
struct PlainPart {
    std::u16string name;
    bool isBase64 = false;
    std::string stored; ///< its bytes in the file, without the line break that ends them

    /// What a reader gets: the stored bytes, or what their Base64 lines stand for; none where a line is no Base64.
    std::optional<std::string> content() const;

    /// Whether the bytes of a Base64 line hold what no part may hold, which the package refuses to hand out.
    bool holdsForbiddenText() const;
};

/// A package text taken apart line by line, by the rules of docs/format.md.
struct PlainPackage {
    std::vector<std::string> headerLines;
    std::vector<PlainPart> parts; ///< all that end, in the order of the file, before `fault`
    std::string fault;            ///< what the failure to read further says; empty where there is none

    /// What is left in a package that reads everything: of each name the last, without what lies in the trash.
    std::map<std::u16string, PlainPart> last() const;
};

constexpr char Nameless[] = "a part-begin line without a name"; // for which the standard library throws
constexpr char IllFormed[] = "Ill-formed UTF-8";                // with which the failure begins
constexpr std::string_view ForbiddenText = "__ZKOPC_PA";
inline std::u16string const ContentTypesName = u"/[Content_Types].xml";

PlainPackage readPlainly(std::string_view text);

/// Whether a part of such a name, with no other beside it, can always have a temporary file. The library may do more.
bool isSurelyUsable(std::u16string const& name);

/// Whether all names are surely usable, also beside each other: no name is a folder of another.
bool areSurelyUsable(std::vector<std::u16string> const& names);

} // namespace fuzz
