#pragma once

#include <string_view>

namespace opc::detail {

/// Whether a component of a native path has the form that `makeNativePath` gives to one that was too long.
bool looksShortened(std::string_view component);

} // namespace opc::detail
