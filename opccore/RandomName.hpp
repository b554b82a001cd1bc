#pragma once

#include <string>

namespace opc::detail {

/// A text of 32 hexadecimal digits, 128 bits that nobody can guess.
std::string randomName();

/// The folder for temporary files: TMPDIR, taken at its word where it is set, else "/tmp".
std::string temporaryFolder();

} // namespace opc::detail
