#pragma once

#include <string_view>

namespace opc::detail {

/// Whether a component of a path has the form that `makeNativePath` gives to one that is too long.
bool looksShortened(std::u16string_view component);

} // namespace opc::detail
