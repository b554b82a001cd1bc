#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace opctext {

class PackageFile;

enum class Severity { Error, Warning };

/// Something wrong with a package file.
struct Finding {
    std::uint64_t line; ///< counted from 1; 0 where the file as a whole is meant
    Severity severity;
    std::string message;
    bool isLostByEditing = false; ///< rewriting the package would drop something, or make a part unreachable

    /// "PATH:LINE: error: MESSAGE"
    std::string asText(std::string const& path) const;
};

/// Reads a whole package file and reports what is wrong with it, in the order of the lines. Throws `Failure` only where
/// the file can't be read at all.
std::vector<Finding> checkPackage(PackageFile const& file);

} // namespace opctext
