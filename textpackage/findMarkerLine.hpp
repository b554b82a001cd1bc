#pragma once

#include <cstddef>
#include <string_view>

namespace opc::textpackage {

/// Finds the first line that begins as the markers do and has a line break above it in the text.
///
/// @return its offset in bytes, from 0; npos where there is none
std::size_t findMarkerLine(std::string_view text);

} // namespace opc::textpackage
