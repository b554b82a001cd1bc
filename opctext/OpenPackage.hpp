#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <opccore/OpenMode.hpp>
#include <opctext/PackageFile.hpp>
#include <textpackage/TextFilePhysicalPackage.hpp>

namespace opc::interfaces {
class IPhysicalPart;
}

namespace opctext {

using opc::interfaces::IPhysicalPart;

/// A package that was opened through the library. What goes wrong comes out as `Failure`, with the number of the line
/// where the file is malformed.
class OpenPackage {
public:
    explicit OpenPackage(PackageFile const& file, opc::interfaces::OpenMode mode = opc::interfaces::OpenMode::Read);

    opc::textpackage::TextFilePhysicalPackage& operator*() { return package_; }
    opc::textpackage::TextFilePhysicalPackage* operator->() { return &package_; }

    /// All parts, the content types part first.
    std::vector<IPhysicalPart*> parts();

    /// The part of that name, without regard to the case of ASCII letters; null where there is none.
    IPhysicalPart* find(std::string const& name);

    /// The parts of these names, in their order. Throws `Failure` for the first that isn't there.
    std::vector<IPhysicalPart*> findAll(std::vector<std::string> const& names);

private:
    PackageFile const& file_;
    opc::textpackage::TextFilePhysicalPackage package_;
};

/// Runs an action of the library on a package file. Where the file is malformed, the `Failure` names the line.
void runNamingLine(PackageFile const& file, std::function<void()> const& action);

/// Hands the content of a part to a function, block by block.
void readContent(IPhysicalPart& part, std::function<void(std::string_view)> const& onBlock);

/// A part's name in UTF-8.
std::string nameOf(IPhysicalPart const& part);

/// Throws the `Failure` for a part that isn't there: says so, why if the file shows it, and what may have been meant.
[[noreturn]] void failForMissingPart(PackageFile const& file, std::string const& name);

} // namespace opctext
