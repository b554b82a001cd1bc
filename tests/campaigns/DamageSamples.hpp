#pragma once

#include <map>
#include <string>

namespace campaigns {

/// Small package texts by name, each for a corner of the format.
std::map<std::string, std::string> const& damageSamples();

} // namespace campaigns
