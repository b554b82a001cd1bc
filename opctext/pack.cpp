#include <opctext/conversion.hpp>

#include <unordered_map>

#include <fmt/format.h>

#include <opccore/Exception.hpp>
#include <opccore/IPhysicalOutputStream.hpp>
#include <opccore/StringConversion.hpp>
#include <opctext/ConversionRun.hpp>
#include <opctext/Fingerprint.hpp>
#include <opctext/Messages.hpp>
#include <opctext/OpenPackage.hpp>
#include <opctext/PackageFile.hpp>
#include <opctext/PackageListing.hpp>
#include <opctext/contentForm.hpp>
#include <opctext/memberNames.hpp>
#include <opctext/partNames.hpp>
#include <opctext/zipComment.hpp>
#include <textpackage/FilePart.hpp>
#include <textpackage/FilePartInfo.hpp>

namespace opctext {

namespace {

using opc::interfaces::OpenMode;
using opc::textpackage::FilePartInfo;

class Packer {
public:
    Packer(PackageFile const& input, ConversionOptions const& options)
        : input_(refusingTextPackage(input)),
          options_(options),
          zip_(input, options.limits) {}

    void writeTo(std::string const& outputPath) {
        chooseMembers();
        PackageFile const output(outputPath, input_.path());
        {
            OpenPackage package(output, OpenMode::Create);
            output.run([&] {
                package->setTextFileHeader(opc::toString(memory_.toHeader(), true));
                for (auto const& member : members_)
                    addPartOrFail(package, member);
                package->close(false);
            });
        }
        if (options_.verify)
            verify(output);
    }

private:
    struct Member {
        ZipEntry entry;
        std::string partName;
    };

    static PackageFile const& refusingTextPackage(PackageFile const& file) {
        file.requireRegular();
        if (isTextPackage(opc::detail::makeNativePath(file.corePath())))
            throw Failure(ExitStatus::NotAPackage, file.path() + ": this is a package in text form already");
        return file;
    }

    [[noreturn]] void fail(ZipEntry const& entry, std::string const& reason,
                           ExitStatus status = ExitStatus::NotAPackage) const {
        throw Failure(status, fmt::format("{}: member {}: {}", input_.path(), printable(entry.name), reason));
    }

    void chooseMembers() {
        memory_.contentTypesName.clear();
        for (auto const& entry : zip_.members()) {
            if (isTrash(entry))
                continue;
            members_.push_back({entry, partNameOf(entry.name)});
            noteContentTypes(members_.back());
            auto const fault = findNameFault(members_.back().partName);
            if (!fault.empty())
                fail(entry, fault);
        }
        if (members_.empty())
            throw Failure(ExitStatus::NotAPackage, input_.path() + ": there is no member in it");
        requireDistinctNames();
        if (memory_.contentTypesName.empty())
            takeWithoutContentTypes();
        takeComment();
    }

    bool isTrash(ZipEntry const& entry) const {
        if (entry.name.compare(0, 7, "[trash]") != 0)
            return false;
        if (!options_.force)
            fail(entry, "a package drops parts whose names begin with \"/[trash]\"; --force leaves it out");
        tell(fmt::format("{}: member {} is left out", input_.path(), printable(entry.name)));
        return true;
    }

    void noteContentTypes(Member& member) {
        if (caseless('/' + member.entry.name) != caseless(ContentTypesName))
            return;
        memory_.contentTypesName = member.entry.name;
        member.partName = ContentTypesName;
    }

    void requireDistinctNames() const {
        NamesByCaseless seen;
        for (auto const& member : members_) {
            auto const [other, isNew] = seen.emplace(caseless(member.partName), member.entry.name);
            if (!isNew)
                fail(member.entry, "there is another of this name, " + printable(other->second));
        }
        auto const [folder, name] = findFolderConflict(seen);
        if (!name.empty())
            throw Failure(ExitStatus::NotAPackage, fmt::format("{}: member {}: its folder is a member as well, {}",
                                                               input_.path(), printable(name), printable(folder)));
    }

    void takeWithoutContentTypes() const {
        std::string const reason =
            input_.path() + ": there is no member " + ZipMemory().contentTypesName + ", so this is no package";
        if (!options_.force)
            throw Failure(ExitStatus::NotAPackage, reason + "; --force takes it all the same");
        tell(reason);
    }

    void takeComment() {
        auto withComment = memory_;
        withComment.comment = zip_.comment();
        if (isFitForHeader(withComment.toHeader()))
            memory_ = withComment;
        else
            tell(input_.path() + ": the comment of the ZIP file can't be a header and is left out");
    }

    void addPartOrFail(OpenPackage& package, Member const& member) {
        try {
            addPart(package, member);
        } catch (opc::Exception const& failure) {
            fail(member.entry, failure.what(), ExitStatus::InputOutput);
        }
    }

    void addPart(OpenPackage& package, Member const& member) {
        auto const content = zip_.read(member.entry);
        auto const fault = findContentFault(content);
        if (!fault.empty())
            fail(member.entry, fault + "; no package can hold it");
        fingerprints_[member.partName].add(content);

        auto* const part = package->createPart(opc::toString(member.partName, true),
                                               contentTypeFor(!isFitForText(content)), FilePartInfo());
        auto& stream = *part->getOutputStream();
        stream.write(content.data(), static_cast<std::int64_t>(content.size()));
        stream.flush();
        if (stream.hasFailed())
            fail(member.entry, "its temporary file could not be written", ExitStatus::InputOutput);
        static_cast<opc::textpackage::FilePart*>(part)->close(); // one file at a time, however many there are
    }

    /// Reads the package back.
    void verify(PackageFile const& output) {
        OpenPackage package(output);
        std::size_t found = 0;
        output.run([&] {
            for (auto* const part : package.parts()) {
                Fingerprint fingerprint;
                readContent(*part, [&](std::string_view block) { fingerprint.add(block); });
                auto const expected = fingerprints_.find(nameOf(*part));
                bool const isAddedByUs = expected == fingerprints_.end() && memory_.contentTypesName.empty();
                if (!isAddedByUs && (expected == fingerprints_.end() || !(fingerprint == expected->second)))
                    failToVerify("part " + printable(nameOf(*part)) + " does not come back as it was");
                found += isAddedByUs ? 0 : 1;
            }
            if (found != fingerprints_.size())
                failToVerify("a part does not come back at all");
        });
    }

    [[noreturn]] void failToVerify(std::string const& reason) const {
        throw Failure(ExitStatus::InputOutput, input_.path() + ": " + reason);
    }

    PackageFile const& input_;
    ConversionOptions const& options_;
    ZipReader zip_;
    ZipMemory memory_;
    std::vector<Member> members_;
    std::unordered_map<std::string, Fingerprint> fingerprints_; // by part name
};

} // namespace

ExitStatus packFiles(std::vector<std::string> const& inputs, ConversionOptions const& options) {
    Direction direction{"packing", "packed", [](std::string const& input) { return input + ".txt"; }, isZipFile,
                        [&](std::string const& path, std::string const& shownPath, std::string const& outputPath) {
                            Packer(PackageFile(path, shownPath), options).writeTo(outputPath);
                        }};
    return runConversion(inputs, options, direction);
}

} // namespace opctext
