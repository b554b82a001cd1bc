#include <opctext/Messages.hpp>
#include <opctext/PackageListing.hpp>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <istream>
#include <string_view>

#include <fmt/format.h>

#include <opccore/Base64.hpp>
#include <opccore/Exception.hpp>
#include <opccore/StringConversion.hpp>
#include <opctext/Failure.hpp>
#include <opctext/PackageFile.hpp>
#include <textpackage/TextPackageHelpers.hpp>

namespace opctext {

namespace {

using namespace opc::textpackage;

/// Collects a listing while the scanner walks the stream.
class ListingScan {
public:
    explicit ListingScan(std::istream& stream) : stream_(stream) {}

    PackageListing run() {
        skipHeader();
        TextPackageHelpers::readParts(
            stream_, [this](auto const& begin) { beginPart(begin); }, [this] { return endPart(); },
            [this](auto const& line) { addLine(line); });
        return std::move(listing_);
    }

private:
    void skipHeader() {
        std::int64_t headerBytes = 0;
        TextPackageHelpers::findPackageBeginMarker(
            stream_, [&](std::string const& line) { headerBytes += static_cast<std::int64_t>(line.size()) + 1; });
        stream_.clear(); // the begin line may be the last, without a line break
        stream_.seekg(headerBytes + static_cast<std::int64_t>(TextPackageHelpers::getPackageBegin().size()));
        std::getline(stream_, listing_.releaseTag);
        auto const tagBegin = listing_.releaseTag.find_first_not_of(" \t");
        auto const tagEnd = listing_.releaseTag.find_last_not_of(" \t\r") + 1;
        listing_.releaseTag = tagEnd == 0 ? "" : listing_.releaseTag.substr(tagBegin, tagEnd - tagBegin);
    }

    void beginPart(TextPackageHelpers::PartBegin const& begin) {
        listing_.parts.push_back({opc::detail::toUTF8String(begin.name, true), begin.isBase64});
        listing_.hasEndLine = false;
        contentBegin_ = lineBegin_ = position();
    }

    bool endPart() {
        if (!listing_.parts.empty())
            listing_.parts.back().isComplete = true;
        listing_.hasEndLine = true; // unless another part begins
        return true;
    }

    void addLine(std::string const& line) {
        auto& part = listing_.parts.back();
        auto const lineEnd = position();
        auto const lineBreakBytes = lineEnd - lineBegin_ - line.size(); // LF or CR LF, which the scanner took away
        if (part.isBinary)
            part.size += foundation::crypto::utils::base64Decode(line).size();
        else
            part.size = lineEnd - contentBegin_ - lineBreakBytes; // the last line break isn't content
        lineBegin_ = lineEnd;
    }

    std::uint64_t position() {
        // Not tellg, which fails once the end was seen.
        return static_cast<std::uint64_t>(stream_.rdbuf()->pubseekoff(0, std::ios::cur, std::ios::in));
    }

    std::istream& stream_;
    PackageListing listing_;
    std::uint64_t contentBegin_ = 0;
    std::uint64_t lineBegin_ = 0;
};

/// A file of which only the beginning matters. A failure to read it throws, and is not taken for its end.
std::ifstream openToLookAt(std::string const& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file.is_open())
        throw Failure(ExitStatus::InputOutput, path + ": " + std::strerror(errno));
    file.exceptions(std::ios::badbit);
    return file;
}

} // namespace

PackageListing readListing(PackageFile const& file) {
    PackageListing listing;
    file.scan([&](std::istream& stream) { listing = ListingScan(stream).run(); });
    return listing;
}

std::vector<std::string> readHeaderLines(PackageFile const& file) {
    std::vector<std::string> lines;
    file.scan([&](std::istream& stream) {
        TextPackageHelpers::findPackageBeginMarker(stream, [&](std::string const& line) { lines.push_back(line); });
    });
    return lines;
}

bool isZipFile(std::string const& path) {
    auto file = openToLookAt(path);
    char beginning[4] = {};
    return file.read(beginning, sizeof beginning) && std::string_view(beginning, 4) == "PK\x03\x04";
}

bool isTextPackage(std::string const& path) {
    if (isZipFile(path))
        return false; // its first line may be as long as the file
    try {
        auto file = openToLookAt(path);
        TextPackageHelpers::findPackageBeginMarker(file, [](std::string const& /*headerLine*/) {});
        return true;
    } catch (opc::Exception const&) {
        return false;
    }
}

void requireEndLine(PackageListing const& listing, std::string const& path) {
    if (listing.hasEndLine)
        return;
    auto message = path + ": the package-end line is missing: the file is cut off";
    if (!listing.parts.empty())
        message += " in part " + printable(listing.parts.back().name) + ", which counts as missing";
    throw Failure(ExitStatus::NotAPackage, message);
}

char const* formOf(PartEntry const& part) {
    return part.isBinary ? "binary" : "text";
}

} // namespace opctext
