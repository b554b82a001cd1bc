#pragma once

#include <string>
#include <vector>

/// One function a command. Each writes data to standard output and throws `Failure` where it can't do its work.
namespace opctext {

enum class ListForm { Table, NamesOnly, Json };

/// Lists the parts of a package.
void listParts(std::string const& file, ListForm form);

/// Writes the contents of parts, one after the other.
void catParts(std::string const& file, std::vector<std::string> const& parts);

/// Tells what a package file is made of.
void showInfo(std::string const& file);

} // namespace opctext
