#pragma once

#include <string>
#include <vector>

#include <opctext/Failure.hpp>
#include <opctext/PackageEdit.hpp>
#include <opctext/TargetFolder.hpp>

/// The commands. Each writes data to standard output and throws `Failure` where it can't do its work. Packages are
/// given by their paths, in the system's form, and parts by their names, in UTF-8.
namespace opctext {

enum class ListForm { Table, NamesOnly, Json };

/// Lists the parts of a package.
void listParts(std::string const& path, ListForm form);

enum class CatMethod {
    Exact, ///< through the read-write package
    Light, ///< through the light reader: stops early, and gives CR LF inside text parts as LF
};

/// Writes the contents of parts, one after the other.
void catParts(std::string const& path, std::vector<std::string> const& names, CatMethod method);

/// Writes parts, all of them where no name is given, as files below a folder.
void extractParts(std::string const& path, std::vector<std::string> const& names, std::string const& folderPath,
                  Overwrite overwrite);

/// Tells what a package file is made of.
void showInfo(std::string const& path);

/// Reports what is wrong with package files; returns the exit status that this makes.
ExitStatus checkFiles(std::vector<std::string> const& paths, bool strict, bool json);

/// Makes a package without parts but for the content types part.
void createPackage(std::string const& path, bool mayOverwrite, KeepBackup keepBackup);

enum class ContentForm { ByContent, Text, Binary };

/// Gives a part, new or not, the content of a file ("-": standard input).
void setPart(std::string const& path, std::string const& name, std::string const& source, ContentForm form,
             KeepBackup keepBackup);

void removeParts(std::string const& path, std::vector<std::string> const& names, KeepBackup keepBackup);

/// Writes the lines above the package-begin line.
void showHeader(std::string const& path);

/// Replaces them; an empty text leaves none.
void setHeader(std::string const& path, std::string const& header, KeepBackup keepBackup);

/// The header text in a file ("-": standard input).
std::string readHeaderFile(std::string const& source);

} // namespace opctext
