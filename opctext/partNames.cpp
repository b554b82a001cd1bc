#include <opctext/partNames.hpp>

#include <algorithm>

#include <opccore/Exception.hpp>
#include <opccore/LocalFileSystemOps.hpp>
#include <opccore/StringConversion.hpp>

namespace opctext {

std::string findNameFault(std::string const& name) {
    if (name.empty() || name.front() != '/')
        return "a part name begins with \"/\"";
    if (name.find(' ') != std::string::npos)
        return "a part name must not hold a space";
    if (name.find_first_of("\r\n") != std::string::npos)
        return "a part name must not hold a line break";
    if (name.compare(0, 8, "/[trash]") == 0)
        return "a part whose name begins with \"/[trash]\" is dropped when a package is read";
    try {
        opc::LocalFileSystemOps().appendPath(u"", opc::toString(name, true));
    } catch (opc::Exception const& failure) {
        return failure.what();
    }
    return {};
}

bool isFolderOf(std::string const& folder, std::string const& name) {
    return name.size() > folder.size() && name[folder.size()] == '/' &&
           caseless(name.substr(0, folder.size())) == caseless(folder);
}

std::string caseless(std::string name) {
    std::transform(name.begin(), name.end(), name.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
    return name;
}

} // namespace opctext
