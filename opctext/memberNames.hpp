#pragma once

#include <string>

namespace opctext {

/// The part name for the member of a ZIP file: "/" and the member's name, in which "%" and all bytes that a part name
/// can't hold (space, control characters, bytes that are not UTF-8) are written as "%XX". Different members give
/// different parts.
std::string partNameOf(std::string const& memberName);

/// The inverse.
std::string memberNameOf(std::string const& partName);

/// Why a member name is unsafe, in that a program that unpacks the ZIP file might write somewhere else than it should;
/// empty where it is not.
std::string findUnsafety(std::string const& memberName);

} // namespace opctext
