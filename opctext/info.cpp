#include <opctext/commands.hpp>

#include <fmt/format.h>

#include <opctext/Messages.hpp>
#include <opctext/PackageFile.hpp>
#include <opctext/PackageListing.hpp>
#include <opctext/StandardStreams.hpp>

namespace opctext {

namespace {

struct Total {
    std::size_t parts = 0;
    std::uint64_t bytes = 0;
};

Total totalOf(PackageListing const& listing, bool binary) {
    Total total;
    for (auto const& part : listing.parts) {
        if (part.isBinary == binary) {
            ++total.parts;
            total.bytes += part.size;
        }
    }
    return total;
}

} // namespace

void showInfo(std::string const& file) {
    PackageFile const packageFile(file);
    auto const listing = readListing(packageFile);
    auto const headerLines = readHeaderLines(packageFile);
    auto const text = totalOf(listing, false);
    auto const binary = totalOf(listing, true);

    auto info = fmt::format("header:      {} lines\n", headerLines.size());
    for (auto const& line : headerLines)
        info += "  | " + printable(line) + '\n';
    info += fmt::format("release tag: {}\n", listing.releaseTag.empty() ? "none" : printable(listing.releaseTag));
    info += fmt::format("parts:       {} ({} text, {} binary)\n", text.parts + binary.parts, text.parts, binary.parts);
    info += fmt::format("content:     {} bytes ({} text, {} binary)\n", text.bytes + binary.bytes, text.bytes,
                        binary.bytes);
    info += fmt::format("end line:    {}\n", listing.hasEndLine ? "yes" : "missing: the file is cut off");
    writeOutput(info);
}

} // namespace opctext
