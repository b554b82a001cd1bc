#pragma once

#include <string>
#include <vector>

namespace opctext {

/// The names, at most three, that somebody may have meant by one that isn't there, the likeliest first: those that
/// hold it, and those that differ from it in few places, both without regard to the case of ASCII letters.
std::vector<std::string> nearestNames(std::string const& wanted, std::vector<std::string> const& names);

} // namespace opctext
