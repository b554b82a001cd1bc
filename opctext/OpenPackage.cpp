#include <opctext/OpenPackage.hpp>

#include <cstdint>

#include <opccore/Exception.hpp>
#include <opccore/IPhysicalInputStream.hpp>
#include <opccore/StringConversion.hpp>
#include <opccore/caselessCompare.hpp>
#include <opctext/Failure.hpp>
#include <opctext/Messages.hpp>
#include <opctext/PackageListing.hpp>
#include <opctext/nearestNames.hpp>
#include <textpackage/FilePart.hpp>

namespace opctext {

using opc::interfaces::OpenMode;

OpenPackage::OpenPackage(PackageFile const& file, OpenMode mode) : file_(file), package_(file.corePath()) {
    if (mode != OpenMode::Create)
        file_.requireRegular();
    runNamingLine(file_, [&] { package_.open(mode); });
}

std::vector<IPhysicalPart*> OpenPackage::parts() {
    std::vector<IPhysicalPart*> result{package_.getContentTypesPart()};
    auto const others = package_.getParts();
    result.insert(result.end(), others.begin(), others.end());
    return result;
}

IPhysicalPart* OpenPackage::find(std::string const& name) {
    auto const wanted = opc::toString(name, true);
    IPhysicalPart* found = nullptr;
    for (auto* const part : parts()) {
        if (part->getName() == wanted)
            return part;
        if (opc::caselessCompare(part->getName(), wanted) == 0)
            found = part;
    }
    return found;
}

std::vector<IPhysicalPart*> OpenPackage::findAll(std::vector<std::string> const& names) {
    std::vector<IPhysicalPart*> found;
    for (auto const& name : names) {
        found.push_back(find(name));
        if (found.back() == nullptr)
            failForMissingPart(file_, name);
    }
    return found;
}

void runNamingLine(PackageFile const& file, std::function<void()> const& action) {
    try {
        file.run(action);
    } catch (Failure const& failure) {
        if (failure.status() == ExitStatus::NotAPackage)
            readListing(file); // fails in the same way, but knows the line
        throw;
    }
}

void readContent(IPhysicalPart& part, std::function<void(std::string_view)> const& onBlock) {
    std::string block(262144, '\0');
    auto& stream = *part.getInputStream();
    stream.close(); // so that it starts at the first byte, even if the part was read before
    stream.open();
    while (auto const count = stream.read(block.data(), static_cast<std::int64_t>(block.size())))
        onBlock({block.data(), static_cast<std::size_t>(count)});
    stream.close(); // a process may not have as many files open as a package has parts
}

std::string nameOf(IPhysicalPart const& part) {
    return opc::detail::toUTF8String(part.getName(), true);
}

void failForMissingPart(PackageFile const& file, std::string const& name) {
    std::vector<std::string> names;
    for (auto const& part : readListing(file).parts) {
        if (!part.isComplete)
            throw Failure(ExitStatus::NotAPackage,
                          file.path() + ": there is no part " + printable(name) +
                              ": the package-end line is missing, and the file is cut off in part " +
                              printable(part.name));
        if (part.name != name) // else it stands there, but where a package drops it
            names.push_back(part.name);
    }
    auto message = file.path() + ": there is no part " + printable(name);
    auto const nearest = nearestNames(name, names);
    for (std::size_t i = 0; i < nearest.size(); ++i)
        message += (i == 0 ? "; did you mean " : i + 1 < nearest.size() ? ", " : " or ") + printable(nearest[i]);
    throw Failure(ExitStatus::InputOutput, message + (nearest.empty() ? "" : "?"));
}

} // namespace opctext
