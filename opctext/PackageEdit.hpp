#pragma once

#include <functional>
#include <string>

#include <opctext/PackageFile.hpp>

namespace opctext {

class OpenPackage;

enum class KeepBackup { No, Yes };

/// Opens a package for writing, lets a function change it, and commits. Nothing is lost on the way: the file is checked
/// first and refused where an edit would drop something of it, and it is left alone where somebody else changed it in
/// the meantime. Throws `Failure`; the file is as it was then.
void editPackage(PackageFile const& file, KeepBackup keepBackup, std::function<void(OpenPackage&)> const& change);

/// Makes a new package file, in which a function may change things. Throws `Failure` where the file exists, unless it
/// may be overwritten.
void createPackageFile(PackageFile const& file, bool mayOverwrite, KeepBackup keepBackup,
                       std::function<void(OpenPackage&)> const& change);

} // namespace opctext
