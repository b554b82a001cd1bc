#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace opctext {

class PackageFile;

/// One part as its package file shows it.
struct PartEntry {
    std::string name; ///< UTF-8
    bool isBinary = false;
    std::uint64_t size = 0;  ///< of the content in bytes, Base64 decoded
    bool isComplete = false; ///< something follows it: another part or the package-end line
};

/// What a package file holds, its header and the contents of its parts left aside.
struct PackageListing {
    std::string releaseTag;       ///< what follows the package-begin marker
    std::vector<PartEntry> parts; ///< in the order of the file
    bool hasEndLine = false;
};

/// Scans the whole file. Throws `Failure` for a file that can't be read or is no package.
PackageListing readListing(PackageFile const& file);

/// The lines above the package-begin line. Throws `Failure` as `readListing` does.
std::vector<std::string> readHeaderLines(PackageFile const& file);

/// Whether a file begins as a ZIP file with a member does. Throws where it can't be read.
bool isZipFile(std::string const& path);

/// Whether a file begins as a package in text form does. Throws where it can't be read.
bool isTextPackage(std::string const& path);

/// Throws the `Failure` for a file that is cut off, if this one is.
void requireEndLine(PackageListing const& listing, std::string const& path);

/// How to call a part's form: "text" or "binary".
char const* formOf(PartEntry const& part);

} // namespace opctext
