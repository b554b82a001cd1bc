#include <opctext/commands.hpp>

#include <fmt/format.h>

#include <opctext/Failure.hpp>
#include <opctext/Messages.hpp>
#include <opctext/OpenPackage.hpp>
#include <opctext/PackageListing.hpp>
#include <opctext/ProgressBar.hpp>
#include <opctext/TargetFolder.hpp>

namespace opctext {

namespace {

void extractPart(PackageFile const& package, IPhysicalPart& part, TargetFolder const& folder, Overwrite overwrite) {
    package.run([&] {
        TargetFolder::File file(folder, nameOf(part), overwrite);
        package.run([&] { readContent(part, [&](std::string_view block) { file.write(block); }); }, nameOf(part));
        file.finish();
    });
}

} // namespace

void extractParts(std::string const& path, std::vector<std::string> const& names, std::string const& folderPath,
                  Overwrite overwrite) {
    PackageFile const file(path);
    OpenPackage package(file);
    auto const parts = names.empty() ? package.parts() : package.findAll(names);
    TargetFolder const folder(folderPath);

    std::size_t failures = 0;
    {
        ProgressBar progress("extracting", parts.size());
        for (auto* const part : parts) {
            try {
                extractPart(file, *part, folder, overwrite);
            } catch (Failure const& failure) { // of one part: the others may be fine
                ++failures;
                progress.hide();
                tell(failure.what());
            }
            progress.step();
        }
    }
    if (failures > 0)
        throw Failure(ExitStatus::InputOutput,
                      fmt::format("{}: {} of {} parts were not extracted", path, failures, parts.size()));
    if (names.empty())
        requireEndLine(readListing(file), path); // a part that was cut off is not in the package
}

} // namespace opctext
