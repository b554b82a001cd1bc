#include <opctext/commands.hpp>

#include <map>
#include <memory>

#include <opccore/StringConversion.hpp>
#include <opccore/caselessCompare.hpp>
#include <opctext/OpenPackage.hpp>
#include <opctext/StandardStreams.hpp>
#include <textpackage/MemoryPart.hpp>
#include <textpackage/TextPackageHelpers.hpp>
#include <textpackage/TextPackageLightweightReader.hpp>

namespace opctext {

namespace {

using namespace opc::textpackage;

struct CaselessOrder {
    bool operator()(std::u16string const& first, std::u16string const& second) const {
        return opc::caselessCompare(first, second) < 0;
    }
};

/// Finds parts with the light reader and, in a file whose parts are not in the order that it relies on, by reading
/// all of the file.
class LightSearch {
public:
    LightSearch(PackageFile const& file, std::vector<std::string> const& names)
        : file_(file),
          reader_(file.corePath()) {
        for (auto const& name : names)
            wanted_[opc::toString(name, true)] = nullptr;
    }

    void run() {
        searchInOrder();
        for (auto const& entry : wanted_) {
            if (entry.second == nullptr)
                return searchEverywhere();
        }
    }

    /// Null for a part that wasn't found.
    IPhysicalPart* get(std::string const& name) const { return wanted_.at(opc::toString(name, true)); }

private:
    void searchInOrder() {
        for (auto const& entry : wanted_)
            reader_.addRequestedPart(entry.first);
        try {
            reader_.open(opc::interfaces::OpenMode::Read);
        } catch (std::exception const&) {
            return; // the other search will say what is wrong, and where, if it is more than the order
        }
        for (auto* const part : reader_.getParts())
            note(part);
        note(reader_.getContentTypesPart());
    }

    void searchEverywhere() {
        file_.scan([this](std::istream& stream) {
            TextPackageHelpers::findPackageBeginMarker(stream, [](std::string const& /*headerLine*/) {});
            TextPackageHelpers::readParts(
                stream,
                [this](TextPackageHelpers::PartBegin const& begin) {
                    if (wanted_.count(begin.name) != 0)
                        current_ = std::make_unique<MemoryPart>(reader_, begin.name, begin.isBase64);
                },
                [this] {
                    if (current_) {
                        note(current_.get());
                        found_.push_back(std::move(current_));
                    }
                    return true;
                },
                [this](std::string const& line) {
                    if (current_)
                        current_->processLine(line);
                });
        });
    }

    void note(IPhysicalPart* part) {
        auto const entry = wanted_.find(part->getName());
        if (entry != wanted_.end())
            entry->second = part;
    }

    PackageFile const& file_;
    TextPackageLightweightReader reader_;
    std::map<std::u16string, IPhysicalPart*, CaselessOrder> wanted_; // null: not found yet
    std::unique_ptr<MemoryPart> current_;                            // empty in a part that nobody wants
    std::vector<std::unique_ptr<MemoryPart>> found_;                 // by the second search
};

void catExactly(PackageFile const& file, std::vector<std::string> const& names) {
    OpenPackage package(file);
    auto const parts = package.findAll(names);
    runNamingLine(file, [&] {
        for (auto* const part : parts)
            readContent(*part, writeOutput);
    });
}

void catLightly(PackageFile const& file, std::vector<std::string> const& names) {
    LightSearch search(file, names);
    search.run();
    for (auto const& name : names) {
        if (search.get(name) == nullptr)
            failForMissingPart(file, name);
    }
    runNamingLine(file, [&] {
        for (auto const& name : names)
            readContent(*search.get(name), writeOutput);
    });
}

} // namespace

void catParts(std::string const& path, std::vector<std::string> const& names, CatMethod method) {
    PackageFile const file(path);
    file.run([&] { method == CatMethod::Light ? catLightly(file, names) : catExactly(file, names); });
}

} // namespace opctext
