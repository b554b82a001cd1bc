#pragma once

#include <string>
#include <string_view>

namespace opc::detail {

/// The inverse of `makeNativePath`, as far as no component was shortened. Throws `opc::Exception` as `opc::toString`
/// does for a path that is not in UTF-8.
std::u16string fromNativePath(std::string const& path);

/// Whether a component of a path has the form that `makeNativePath` gives to one that is too long.
bool looksShortened(std::u16string_view component);

} // namespace opc::detail
