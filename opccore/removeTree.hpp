#pragma once

#include <cstdint>
#include <string>

namespace opc::detail {

/// Removes a file, or a folder with all that is in it, and returns how many files and folders that were; links are
/// removed, not followed. Tries once more before it gives up. Needs no memory and few descriptors, however deep the
/// folder is: it is what cleans up when there is none left. Throws `opc::Exception` "Could not remove ...".
std::uintmax_t removeTree(std::string const& nativePath);

} // namespace opc::detail
