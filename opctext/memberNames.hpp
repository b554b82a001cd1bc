#pragma once

#include <map>
#include <string>

namespace opctext {

/// The part name for the member of a ZIP file: "/" and the member's name, in which "%" and all bytes that a part name
/// can't hold (space, control characters, bytes that are not UTF-8) are written as "%XX". Different members give
/// different parts.
std::string partNameOf(std::string const& memberName);

/// The inverse.
std::string memberNameOf(std::string const& partName);

/// Member names by what counts as the same, each with the name to show for it.
using NamesByCaseless = std::map<std::string, std::string>;

/// Two of these names where one is a folder in the path of the other, the folder first; both empty where there are no
/// such two.
std::pair<std::string, std::string> findFolderConflict(NamesByCaseless const& names);

/// Why a member name is unsafe, in that a program that unpacks the ZIP file might write somewhere else than it should;
/// empty where it is not.
std::string findUnsafety(std::string const& memberName);

} // namespace opctext
