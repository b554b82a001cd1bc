#include <opctext/conversion.hpp>

#include <unordered_map>

#include <fmt/format.h>

#include <opccore/StringConversion.hpp>
#include <opctext/ConversionRun.hpp>
#include <opctext/Fingerprint.hpp>
#include <opctext/Messages.hpp>
#include <opctext/OpenPackage.hpp>
#include <opctext/PackageCheck.hpp>
#include <opctext/PackageFile.hpp>
#include <opctext/PackageListing.hpp>
#include <opctext/ZipReader.hpp>
#include <opctext/ZipWriter.hpp>
#include <opctext/memberNames.hpp>
#include <opctext/partNames.hpp>
#include <opctext/zipComment.hpp>

namespace opctext {

namespace {

constexpr std::size_t LongestComment = 65535;
constexpr std::string_view Ending = ".txt";

std::string joinLines(std::vector<std::string> const& lines) {
    std::string text;
    for (auto const& line : lines)
        text += line + '\n';
    return text.substr(0, text.empty() ? 0 : text.size() - 1);
}

class Unpacker {
public:
    Unpacker(PackageFile const& input, ConversionOptions const& options)
        : input_(input),
          options_(options),
          package_(input),
          listing_(readListing(input)),
          memory_(ZipMemory::fromHeader(joinLines(readHeaderLines(input)))) {}

    void writeTo(std::string const& outputPath) {
        requireNothingMissing();
        chooseMembers();
        input_.run([&] {
            ZipWriter zip(outputPath);
            if (memory_.comment.size() <= LongestComment)
                zip.setComment(memory_.comment);
            else
                tell(input_.path() + ": the header is too long for the comment of a ZIP file and is left out");
            for (auto const& member : members_)
                zip.add(member.name, *member.part, member.size, member.isText);
            zip.finish();
        });
        if (options_.verify)
            verify(outputPath);
    }

private:
    struct Member {
        std::string name;
        IPhysicalPart* part;
        std::uint64_t size;
        bool isText;
    };

    [[noreturn]] void fail(std::string const& partName, std::string const& reason,
                           ExitStatus status = ExitStatus::NotAPackage) const {
        throw Failure(status, fmt::format("{}: part {}: {}", input_.path(), printable(partName), reason));
    }

    /// Refuses a file of which a part would be missing in the ZIP file.
    void requireNothingMissing() const {
        for (auto const& finding : checkPackage(input_)) {
            if (finding.isLostByEditing)
                throw Failure(ExitStatus::NotAPackage, finding.asText(input_.path()));
        }
    }

    void chooseMembers() {
        std::unordered_map<std::string, IPhysicalPart*> parts;
        for (auto* const part : package_.parts())
            parts[nameOf(*part)] = part;
        NamesByCaseless seen; // the names of the parts
        for (auto const& entry : listing_.parts) {
            auto const name = chooseName(entry);
            if (name.empty())
                continue;
            auto const unsafety = findUnsafety(name);
            if (!unsafety.empty())
                fail(entry.name, "as a member of a ZIP file " + unsafety, ExitStatus::UnsafeName);
            auto const [other, isNew] = seen.emplace(caseless(name), entry.name);
            if (!isNew)
                fail(entry.name, "in a ZIP file it would have the same name as part " + printable(other->second));
            if (!isContentTypes(entry) && partNameOf(name) != entry.name)
                fail(entry.name, "packing the ZIP file would call it " + printable(partNameOf(name)) +
                                     "; \"%\" is written as %25 in the name of a part");
            Member member{name, parts.at(entry.name), entry.size, !entry.isBinary};
            members_.insert(isContentTypes(entry) ? members_.begin() : members_.end(), member);
        }
        auto const [folder, partName] = findFolderConflict(seen);
        if (!partName.empty())
            fail(partName,
                 "in a ZIP file it would lie in a folder that is a member itself, of part " + printable(folder));
    }

    static bool isContentTypes(PartEntry const& entry) { return entry.name == ContentTypesName; }

    /// The member name of a part; empty for the content types part that a ZIP file had none of.
    std::string chooseName(PartEntry const& entry) const {
        if (!isContentTypes(entry))
            return memberNameOf(entry.name);
        bool const isMissing = memory_.contentTypesName.empty() && entry.size > 0; // somebody has written one since
        return isMissing ? ZipMemory().contentTypesName : memory_.contentTypesName;
    }

    /// Reads the ZIP file back.
    void verify(std::string const& outputPath) {
        PackageFile const output(outputPath, input_.path());
        ZipLimits limits;
        limits.parts = limits.partBytes = limits.totalBytes = limits.ratio = UINT64_MAX; // it is our own
        ZipReader zip(output, limits);
        if (zip.members().size() != members_.size())
            fail(members_.front().name, "it does not come back, or more than it does", ExitStatus::InputOutput);
        for (std::size_t i = 0; i < members_.size(); ++i) {
            Fingerprint expected;
            input_.run([&] { readContent(*members_[i].part, [&](std::string_view block) { expected.add(block); }); });
            Fingerprint actual;
            actual.add(zip.read(zip.members()[i]));
            if (!(actual == expected) || zip.members()[i].name != members_[i].name)
                fail(nameOf(*members_[i].part), "it does not come back as it was", ExitStatus::InputOutput);
        }
    }

    PackageFile const& input_;
    ConversionOptions const& options_;
    OpenPackage package_;
    PackageListing listing_;
    ZipMemory memory_;
    std::vector<Member> members_;
};

std::string outputFor(std::string const& input) {
    bool const hasEnding =
        input.size() > Ending.size() && input.compare(input.size() - Ending.size(), Ending.size(), Ending) == 0;
    return hasEnding ? input.substr(0, input.size() - Ending.size()) : std::string();
}

} // namespace

ExitStatus unpackFiles(std::vector<std::string> const& inputs, ConversionOptions const& options) {
    Direction direction{"unpacking", "unpacked", outputFor, isTextPackage,
                        [&](std::string const& path, std::string const& shownPath, std::string const& outputPath) {
                            Unpacker(PackageFile(path, shownPath), options).writeTo(outputPath);
                        }};
    return runConversion(inputs, options, direction);
}

} // namespace opctext
