#pragma once

#include <string>

namespace opctext {

/// The name of the content types part.
inline constexpr char const* ContentTypesName = "/[Content_Types].xml";

/// Why the format, or a file system that its parts must pass through, can't hold a part of this name (in UTF-8);
/// empty where it can.
std::string findNameFault(std::string const& name);

/// Whether one of two part names names a folder in the path of the other, without regard to case: no file system
/// could hold both.
bool isFolderOf(std::string const& folder, std::string const& name);

/// The name in lower case, as far as ASCII letters go: the same for names that count as equal.
std::string caseless(std::string name);

} // namespace opctext
