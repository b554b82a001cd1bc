#include <opctext/commands.hpp>

#include <algorithm>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <opctext/Messages.hpp>
#include <opctext/PackageFile.hpp>
#include <opctext/PackageListing.hpp>
#include <opctext/StandardStreams.hpp>

namespace opctext {

namespace {

/// How many columns a text takes on a terminal, as the formatting library counts: it fills up to a width in columns
/// with one byte for each that is missing.
std::size_t countColumns(std::string const& text) {
    auto const width = text.size(); // never less than the columns
    return 2 * width - fmt::format("{:<{}}", text, width).size();
}

std::string asTable(std::vector<PartEntry> const& parts) {
    std::size_t nameWidth = 0;
    std::size_t sizeWidth = 0;
    for (auto const& part : parts) {
        nameWidth = std::max(nameWidth, countColumns(printable(part.name)));
        sizeWidth = std::max(sizeWidth, std::to_string(part.size).size());
    }
    constexpr std::size_t WidestName = 80; // one long name must not push all sizes out of sight
    std::string table;
    for (auto const& part : parts)
        table += fmt::format("{:<{}}  {:<6}  {:>{}}\n", printable(part.name), std::min(nameWidth, WidestName),
                             formOf(part), part.size, sizeWidth);
    return table;
}

std::string asNames(std::vector<PartEntry> const& parts) {
    std::string names;
    for (auto const& part : parts)
        names += part.name + '\n';
    return names;
}

std::string asJson(std::vector<PartEntry> const& parts) {
    auto array = nlohmann::ordered_json::array();
    for (auto const& part : parts)
        array.push_back({{"name", part.name}, {"form", formOf(part)}, {"size", part.size}});
    return array.dump(2) + '\n';
}

} // namespace

void listParts(std::string const& file, ListForm form) {
    auto const listing = readListing(PackageFile(file));
    auto parts = listing.parts;
    if (!parts.empty() && !parts.back().isComplete)
        parts.pop_back();

    writeOutput(form == ListForm::Table       ? asTable(parts)
                : form == ListForm::NamesOnly ? asNames(parts)
                                              : asJson(parts));
    requireEndLine(listing, file);
}

} // namespace opctext
