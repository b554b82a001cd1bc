#include <opctext/commands.hpp>

#include <map>
#include <memory>

#include <opccore/Exception.hpp>
#include <opccore/IPhysicalInputStream.hpp>
#include <opccore/StringConversion.hpp>
#include <opccore/caselessCompare.hpp>
#include <opctext/Failure.hpp>
#include <opctext/PackageFile.hpp>
#include <opctext/PackageListing.hpp>
#include <opctext/StandardOutput.hpp>
#include <opctext/nearestNames.hpp>
#include <textpackage/MemoryPart.hpp>
#include <textpackage/TextPackageHelpers.hpp>
#include <textpackage/TextPackageLightweightReader.hpp>

namespace opctext {

namespace {

using namespace opc::textpackage;
using opc::interfaces::IPhysicalPart;

struct CaselessOrder {
    bool operator()(std::u16string const& first, std::u16string const& second) const {
        return opc::caselessCompare(first, second) < 0;
    }
};

/// The wanted parts by name; null as long as one wasn't found.
using WantedParts = std::map<std::u16string, IPhysicalPart*, CaselessOrder>;

bool allFound(WantedParts const& wanted) {
    for (auto const& entry : wanted) {
        if (entry.second == nullptr)
            return false;
    }
    return true;
}

void note(WantedParts& wanted, IPhysicalPart* part) {
    auto const entry = wanted.find(part->getName());
    if (entry != wanted.end())
        entry->second = part;
}

/// Finds what the light reader finds, which stops early but relies on the order that the writer gives to parts.
void findInOrder(TextPackageLightweightReader& reader, WantedParts& wanted) {
    for (auto const& entry : wanted)
        reader.addRequestedPart(entry.first);
    try {
        reader.open(opc::interfaces::OpenMode::Read);
    } catch (opc::Exception const&) {
        return; // the scan of the whole file will say what is wrong, and where, if it is more than the order
    }
    for (auto* const part : reader.getParts())
        note(wanted, part);
    note(wanted, reader.getContentTypesPart());
}

/// Finds wanted parts anywhere in a file, by reading all of it.
class AnyOrderSearch {
public:
    AnyOrderSearch(TextPackageLightweightReader& reader, WantedParts& wanted) : reader_(reader), wanted_(wanted) {}

    void run(std::istream& stream) {
        TextPackageHelpers::findPackageBeginMarker(stream, [](std::string const& /*headerLine*/) {});
        TextPackageHelpers::readParts(
            stream, [this](auto const& begin) { beginPart(begin); }, [this] { return endPart(); },
            [this](auto const& line) {
                if (current_)
                    current_->processLine(line);
            });
        if (current_)
            throw opc::Exception("the package-end line is missing: the file is cut off in part " +
                                 printable(names_.back()));
    }

    std::vector<std::string> const& names() const { return names_; }

private:
    void beginPart(TextPackageHelpers::PartBegin const& begin) {
        names_.push_back(opc::detail::toUTF8String(begin.name, true));
        if (wanted_.count(begin.name) != 0)
            current_ = std::make_unique<MemoryPart>(reader_, begin.name, begin.isBase64);
    }

    bool endPart() {
        if (current_) {
            note(wanted_, current_.get());
            found_.push_back(std::move(current_));
        }
        return true;
    }

    TextPackageLightweightReader& reader_;
    WantedParts& wanted_;
    std::unique_ptr<MemoryPart> current_; // empty in a part that nobody wants
    std::vector<std::unique_ptr<MemoryPart>> found_;
    std::vector<std::string> names_; // of all parts
};

[[noreturn]] void failForMissing(std::string const& file, std::string const& name,
                                 std::vector<std::string> const& names) {
    auto message = file + ": there is no part " + printable(name);
    auto const nearest = nearestNames(name, names);
    for (std::size_t i = 0; i < nearest.size(); ++i)
        message += (i == 0 ? "; did you mean " : i + 1 < nearest.size() ? ", " : " or ") + printable(nearest[i]);
    throw Failure(ExitStatus::InputOutput, message + (nearest.empty() ? "" : "?"));
}

void writeContent(IPhysicalPart& part) {
    std::string block(64 * 1024, '\0');
    auto& stream = *part.getInputStream();
    while (auto const count = stream.read(block.data(), static_cast<std::int64_t>(block.size())))
        writeOutput({block.data(), static_cast<std::size_t>(count)});
    part.getInputStream()->open(); // from its start again, should the same part be asked for twice
}

} // namespace

void catParts(std::string const& file, std::vector<std::string> const& parts) {
    PackageFile const package(file);
    WantedParts wanted;
    std::vector<std::u16string> names;
    package.run([&] {
        for (auto const& part : parts)
            wanted[names.emplace_back(opc::toString(part, true))] = nullptr;
    });

    TextPackageLightweightReader reader(package.corePath());
    AnyOrderSearch search(reader, wanted);
    findInOrder(reader, wanted);
    if (!allFound(wanted))
        package.scan([&](std::istream& stream) { search.run(stream); });

    for (std::size_t i = 0; i < parts.size(); ++i) {
        if (wanted[names[i]] == nullptr)
            failForMissing(file, parts[i], search.names());
    }
    package.run([&] {
        for (auto const& name : names)
            writeContent(*wanted[name]);
    });
}

} // namespace opctext
