#include <algorithm>
#include <cctype>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <rapidcheck.h>
#include <rapidcheck/gtest.h>

#include <opccore/Exception.hpp>
#include <opccore/IPhysicalInputStream.hpp>
#include <tests/support/Base64Lines.hpp>
#include <tests/support/FoldersInMemory.hpp>
#include <tests/support/PackageFixture.hpp>
#include <textpackage/FilePart.hpp>
#include <textpackage/FilePartInfo.hpp>
#include <textpackage/TextFilePhysicalPackage.hpp>

namespace fs = std::filesystem;

using opc::interfaces::OpenMode;
using opc::textpackage::FilePart;
using opc::textpackage::FilePartInfo;
using opc::textpackage::TextFilePhysicalPackage;
using ::testing::IsEmpty;
using testsupport::addPart;
using testsupport::partOf;
using testsupport::readAll;
using testsupport::readFile;
using testsupport::toCorePath;
using testsupport::toUtf8;
using testsupport::writeInto;

namespace {

/// What a part's input stream gives from its start.
std::string contentFromTheStart(FilePart& part) {
    auto& stream = *part.getInputStream();
    stream.close();
    stream.open();
    return readAll(stream);
}

// --- Real packages

/// A package file taken apart by its markers alone: what stands above the first part, and the bytes of each part
/// block, under its begin line.
struct Blocks {
    std::string head;
    std::map<std::string, std::string> parts;
};

bool operator==(Blocks const& first, Blocks const& second) {
    return first.head == second.head && first.parts == second.parts;
}

Blocks blocksOf(std::string const& file) {
    std::string const mark = "\n__ZKOPC_PART_BEGIN__ ";
    auto begin = file.find(mark);
    Blocks blocks{file.substr(0, begin), {}};
    while (begin != std::string::npos) {
        auto const next = file.find(mark, begin + 1);
        auto const end = std::min(next, file.rfind("\n__ZKOPC_PACKAGE_END__\n"));
        auto const line = file.find('\n', begin + 1);
        blocks.parts[file.substr(begin, line - begin)] = file.substr(line, end - std::min(end, line));
        begin = next;
    }
    return blocks;
}

class CorpusRoundTrip : public testsupport::PackageFixture, public ::testing::WithParamInterface<fs::path> {
protected:
    static std::vector<fs::path> packageFiles() {
        std::vector<fs::path> files;
        for (auto const& entry : fs::directory_iterator(TEST_DATA_FOLDER "/corpus")) {
            if (entry.path().extension() == ".txt" && entry.path().filename() != "LICENSES.txt")
                files.push_back(entry.path());
        }
        std::sort(files.begin(), files.end());
        return files;
    }

    /// The first listed part that is binary, or text; none where there is no such part.
    static FilePart* firstPart(TextFilePhysicalPackage& package, bool isBinary) {
        for (auto* const part : package.getParts()) {
            auto* const filePart = dynamic_cast<FilePart*>(part);
            if (filePart->isBinary() == isBinary)
                return filePart;
        }
        return nullptr;
    }

    /// Opens the copy of the package, changes it and commits.
    template <class Change>
    void commit(Change change) const {
        TextFilePhysicalPackage package(folder.corePath("package.txt"));
        package.open(OpenMode::ReadWrite);
        change(package);
        package.close(false);
    }

    std::u16string const path = writeText(readFile(GetParam()));
    std::string const original = packageFile();

public:
    static auto each() { return ::testing::ValuesIn(packageFiles()); }
};

TEST_P(CorpusRoundTrip, KeepsEveryByteWhereAPartIsRewrittenWithItsOwn) {
    for (bool const isBinary : {false, true}) {
        auto const rewrite = [&](TextFilePhysicalPackage& package) {
            if (auto* const part = firstPart(package, isBinary))
                writeInto(*part, contentFromTheStart(*part));
            else
                writeInto(*package.getContentTypesPart(), contentFromTheStart(*package.getContentTypesPart()));
        };

        commit(rewrite);

        auto const first = packageFile();
        EXPECT_EQ(blocksOf(first), blocksOf(original));
        EXPECT_GE(blocksOf(first).parts.size(), 8U);
        commit(rewrite);
        EXPECT_EQ(packageFile(), first);
    }
}

TEST_P(CorpusRoundTrip, KeepsEveryByteOfTheOtherPartsWhereOneIsAdded) {
    std::string const content = "CR LF\r\nLF\n";
    auto const write = [&](TextFilePhysicalPackage& package) { addPart(package, u"/new/part.xml", u"", content); };

    commit(write);

    auto expected = blocksOf(original);
    expected.parts["\n__ZKOPC_PART_BEGIN__ /new/part.xml"] = '\n' + content;
    auto const first = packageFile();
    EXPECT_EQ(blocksOf(first), expected);
    commit(write);
    EXPECT_EQ(packageFile(), first);
}

TEST_P(CorpusRoundTrip, KeepsEveryByteWhereEachPartIsReadAndOneIsDeleted) {
    commit([&](TextFilePhysicalPackage& package) { addPart(package, u"/new/part.xml", u"", "new"); });

    commit([&](TextFilePhysicalPackage& package) {
        package.deletePart(u"/new/part.xml");
        for (auto* const part : package.getParts())
            readAll(*part->getInputStream()); // which decodes the binary ones: they are encoded again
    });

    EXPECT_EQ(blocksOf(packageFile()), blocksOf(original));
}

std::string testNameOf(::testing::TestParamInfo<fs::path> const& info) {
    auto name = info.param.stem().string();
    std::replace_if(
        name.begin(), name.end(), [](unsigned char c) { return std::isalnum(c) == 0; }, '_');
    return name;
}

INSTANTIATE_TEST_SUITE_P(EachPackage, CorpusRoundTrip, CorpusRoundTrip::each(), testNameOf);

// --- Any sequence of changes

/// A package as plain values.
struct PartModel {
    std::string content;
    bool isBinary = false;
};

using PartModels = std::map<std::u16string, PartModel>;

struct PackageModel {
    std::u16string header;
    PartModels parts;
};

std::u16string const ContentTypes = u"/[Content_Types].xml";

std::u16string lower(std::u16string name) {
    for (auto& unit : name)
        unit = unit >= u'A' && unit <= u'Z' ? static_cast<char16_t>(unit + 32) : unit;
    return name;
}

/// Which of the four groups of the file a part stands in.
int groupOf(std::u16string const& name) {
    if (name == ContentTypes)
        return 0;
    if (name == u"/_rels/.rels")
        return 1;
    return lower(name).rfind(u"/metadata/", 0) == 0 ? 2 : 3;
}

/// The bytes that a package must have as a file.
std::string fileOf(PackageModel const& package) {
    std::vector<std::pair<std::u16string, PartModel>> parts(package.parts.begin(), package.parts.end());
    std::sort(parts.begin(), parts.end(), [](auto const& first, auto const& second) {
        auto const key = [](auto const& part) { return std::make_pair(groupOf(part.first), lower(part.first)); };
        return key(first) < key(second);
    });
    auto file = package.header.empty() ? "" : toUtf8(package.header) + "\n";
    file += "__ZKOPC_PACKAGE_BEGIN__ V3508k\n";
    for (auto const& [name, part] : parts) {
        file += "__ZKOPC_PART_BEGIN__ " + toUtf8(name) + (part.isBinary ? " BASE64\n" : "\n");
        file += (part.isBinary ? testsupport::base64Lines(part.content) : part.content) + "\n";
    }
    return file + "__ZKOPC_PACKAGE_END__\n";
}

/// Adds a header that is read, line by line, to the one that there is: empty lines at the very start leave no trace.
std::u16string headerWithOneReadBehindIt(std::u16string header, std::u16string const& read) {
    if (read.empty())
        return header; // there are no header lines
    for (std::size_t begin = 0; begin <= read.size();) {
        auto const end = std::min(read.find(u'\n', begin), read.size());
        header += (header.empty() ? u"" : u"\n") + read.substr(begin, end - begin);
        begin = end + 1;
    }
    return header;
}

/// What the format keeps of a text: one CR at its very end is taken for half of the line break behind it.
PartModel readBack(PartModel part) {
    if (!part.isBinary && !part.content.empty() && part.content.back() == '\r')
        part.content.pop_back();
    return part;
}

enum class Deed {
    Create,
    CreateBinary,
    Write,
    Read,
    Delete,
    CloseStreams,
    SetHeader,
    Commit,
    Discard,
    OpenForReading,
    OpenAnew,
    UseANewObject,
};

/// What is done next; names, contents and headers are indices into the tables below.
struct Step {
    Deed deed = Deed::Commit;
    std::size_t name = 0;
    std::size_t content = 0;
};

void showValue(Step const& step, std::ostream& out) {
    static char const* const deeds[] = {"Create",  "CreateBinary",   "Write",     "Read",
                                        "Delete",  "CloseStreams",   "SetHeader", "Commit",
                                        "Discard", "OpenForReading", "OpenAnew",  "UseANewObject"};
    out << deeds[static_cast<std::size_t>(step.deed)] << "(name " << step.name << ", content " << step.content << ")";
}

std::vector<std::u16string> const names = {
    ContentTypes,       u"/_rels/.rels",
    u"/metadata/z.xml", u"/Metadata/a.xml",
    u"/metadata.xml",   u"/b.xml",
    u"/A.bin",          u"/x/y/z.xml",
    u"/x/_.bin",        u"/x-",
    u"/\U0001D11E.xml", u"/\uFF21.bin",
    u"/\u00E9.xml",     std::u16string(u"/").append(300, u'n'),
};

std::vector<std::string> const contents = {
    "",
    "text",
    "two\nlines",
    "trailing LF\n",
    "\n",
    "\n\n",
    "CR LF\r\nwithin\r\n",
    "\r\n",
    "a lone CR\rwithin",
    "a CR at the end\r",
    "two CR at the end\r\r",
    "\r",
    " blanks \t ",
    std::string("\0NUL\0", 5),
    "\x80\xFF\xFE high bytes",
    "__ZKOPC_P",
    "\n__ZKOPC_",
    testsupport::mixedBytes(56),
    testsupport::mixedBytes(57),
    testsupport::mixedBytes(58),
    testsupport::mixedBytes(1000),
};

std::vector<std::u16string> const headers = {
    u"",
    u"a header",
    u"two\nlines",
    u"\n",
    u"\n\nafter empty lines\n",
    u"CR LF\r\n",
    u"\u00E9 \U0001D11E",
    u"1\n2\n3\n4\n5\n6\n7\n8\n9\n10\n11",
};

/// A package that is driven beside its model, step by step.
class ModelledPackage {
public:
    explicit ModelledPackage(std::u16string const& path) : path_(path) {
        package_ = std::make_unique<TextFilePhysicalPackage>(path_);
    }

    void take(Step const& step) {
        auto const& name = names[step.name];
        auto const& content = contents[step.content];
        switch (step.deed) {
        case Deed::Commit:
            return close(false);
        case Deed::Discard:
            return close(true);
        case Deed::OpenForReading:
            return open(OpenMode::Read);
        case Deed::OpenAnew:
            return open(OpenMode::Create);
        case Deed::UseANewObject:
            return useANewObject();
        case Deed::SetHeader:
            return setHeader(headers[step.content % headers.size()]);
        default:
            break;
        }
        if (!isOpen_)
            open(disk_ ? OpenMode::ReadWrite : OpenMode::Create);
        if (step.deed == Deed::Create || step.deed == Deed::CreateBinary)
            create(name, step.deed == Deed::CreateBinary);
        else if (step.deed == Deed::CloseStreams)
            closeStreams();
        else if (step.deed == Deed::Delete)
            remove(name);
        else if (parts_.count(name) == 0)
            RC_ASSERT_THROWS_AS(partOf(*package_, name), std::runtime_error);
        else if (step.deed == Deed::Write)
            write(name, content);
        else
            read(name);
    }

private:
    /// A part of the open package.
    struct OpenPart {
        bool isBinary = false;
        std::optional<std::string> stored;  ///< what the file holds; none for a created part
        std::optional<std::string> written; ///< what was written since
        bool isChanged = false;             ///< it can't be deleted before the package is closed
        bool isStreamOpen = false;          ///< what is written next is added
        bool hidesAStoredOne = false;       ///< a stored part of the same name is still there
    };

    void open(OpenMode mode) {
        if (isOpen_ || (mode == OpenMode::Read && !disk_))
            return;
        package_->open(mode);
        decoded_.clear();
        isOpen_ = true;
        mode_ = mode;
        isModified_ = mode == OpenMode::Create;
        if (mode == OpenMode::Create) {
            parts_[ContentTypes].isChanged = true;
        } else {
            for (auto const& [name, part] : disk_->parts) {
                parts_[name].isBinary = part.isBinary;
                parts_[name].stored = part.content;
            }
            header_ = headerWithOneReadBehindIt(header_, disk_->header);
        }
    }

    void close(bool discard) {
        bool const commits = isOpen_ && isModified_ && !discard && mode_ != OpenMode::Read;
        bool const tooLong = std::count(header_.begin(), header_.end(), u'\n') > 20;
        if (commits && tooLong)
            RC_ASSERT_THROWS_AS(package_->close(false), opc::Exception);
        else
            package_->close(discard);
        if (commits && !tooLong)
            storeParts();
        isOpen_ = false;
        parts_.clear();
        RC_ASSERT(!package_->isOpen());
        expectOnDisk();
    }

    void useANewObject() {
        package_ = std::make_unique<TextFilePhysicalPackage>(path_);
        isOpen_ = false;
        parts_.clear();
        header_.clear();
        expectOnDisk();
    }

    void setHeader(std::u16string const& header) {
        package_->setTextFileHeader(header);
        header_ = header;
    }

    void create(std::u16string const& name, bool isBinary) {
        auto const entry = parts_.find(name);
        if (name == ContentTypes && entry != parts_.end() && !entry->second.isChanged)
            return; // the stored one would still count as the content types part
        bool const hides = entry != parts_.end() && (!entry->second.isChanged || entry->second.hidesAStoredOne);
        package_->createPart(name, isBinary ? u"image/png" : u"text/xml", FilePartInfo());
        parts_[name] = OpenPart{isBinary, std::nullopt, std::nullopt, true, false, hides};
        isModified_ = true;
    }

    void write(std::u16string const& name, std::string const& content) {
        auto& part = parts_[name];
        writeInto(partNamed(name), content);
        part.written = (part.isStreamOpen ? *part.written : "") + content;
        part.isStreamOpen = true;
        part.isChanged = part.isChanged || mode_ == OpenMode::ReadWrite;
        part.hidesAStoredOne = part.hidesAStoredOne && mode_ != OpenMode::ReadWrite;
        isModified_ = true;
    }

    void read(std::u16string const& name) {
        auto& part = parts_[name];
        auto& filePart = partNamed(name);
        RC_ASSERT(filePart.isBinary() == part.isBinary);
        if (part.stored) {
            RC_ASSERT(contentFromTheStart(filePart) == *part.stored);
            part.isChanged = part.isChanged || (part.isBinary && mode_ == OpenMode::ReadWrite);
            if (part.isBinary)
                decoded_.insert(name);
        } else if (decoded_.count(name) == 0) { // else it finds what an earlier part of its name left
            RC_ASSERT_THROWS_AS(filePart.getInputStream(), opc::Exception);
        }
    }

    void remove(std::u16string const& name) {
        auto const entry = parts_.find(name);
        bool const isStored = entry != parts_.end() && (!entry->second.isChanged || entry->second.hidesAStoredOne);
        if (!isStored) {
            RC_ASSERT_THROWS_AS(package_->deletePart(name), opc::Exception);
            return;
        }
        if (name == ContentTypes && !entry->second.hidesAStoredOne)
            return; // what is committed then can't be opened
        package_->deletePart(name);
        isModified_ = true;
        if (entry->second.hidesAStoredOne)
            entry->second.hidesAStoredOne = false;
        else
            parts_.erase(entry);
    }

    void closeStreams() {
        package_->closeParts();
        for (auto& part : parts_)
            part.second.isStreamOpen = false;
    }

    FilePart& partNamed(std::u16string const& name) { return partOf(*package_, name); }

    /// Writes the model of the file, compares the file with it and makes it the model of what is read from it.
    void storeParts() {
        PackageModel written{header_, {}};
        for (auto const& [name, part] : parts_)
            written.parts[name] = {part.written.value_or(part.stored.value_or("")), part.isBinary};
        file_ = fileOf(written);
        disk_ = PackageModel{header_, {}};
        for (auto const& [name, part] : written.parts)
            disk_->parts[name] = readBack(part);
    }

    void expectOnDisk() const {
        auto const path = testsupport::toNativePath(path_);
        RC_ASSERT(fs::exists(path) == disk_.has_value());
        if (!disk_)
            return;
        RC_ASSERT(readFile(path) == file_);

        TextFilePhysicalPackage fresh(path_);
        fresh.open(OpenMode::Read);
        RC_ASSERT(fresh.getParts().size() + 1 == disk_->parts.size());
        for (auto const& [name, part] : disk_->parts) {
            RC_ASSERT(partOf(fresh, name).isBinary() == part.isBinary);
            RC_ASSERT(contentFromTheStart(partOf(fresh, name)) == part.content);
        }
    }

    std::u16string path_;
    std::unique_ptr<TextFilePhysicalPackage> package_;
    std::optional<PackageModel> disk_; ///< what the file says
    std::string file_;                 ///< its bytes
    bool isOpen_ = false;
    bool isModified_ = false;
    OpenMode mode_ = OpenMode::Create;
    std::u16string header_; ///< of the object
    std::map<std::u16string, OpenPart> parts_;
    std::set<std::u16string> decoded_; ///< the names of stored parts whose bytes were extracted since `open`
};

rc::Gen<Step> anyStep() {
    auto const deed = rc::gen::weightedElement<Deed>({{6, Deed::Create},
                                                      {6, Deed::CreateBinary},
                                                      {8, Deed::Write},
                                                      {5, Deed::Read},
                                                      {3, Deed::Delete},
                                                      {2, Deed::CloseStreams},
                                                      {2, Deed::SetHeader},
                                                      {6, Deed::Commit},
                                                      {1, Deed::Discard},
                                                      {1, Deed::OpenForReading},
                                                      {1, Deed::OpenAnew},
                                                      {2, Deed::UseANewObject}});
    return rc::gen::build<Step>(rc::gen::set(&Step::deed, deed),
                                rc::gen::set(&Step::name, rc::gen::inRange<std::size_t>(0, names.size())),
                                rc::gen::set(&Step::content, rc::gen::inRange<std::size_t>(0, contents.size())));
}

RC_GTEST_PROP(AnySequenceOfChanges, IsCommittedAndReadBackAsItWasMade, ()) {
    auto const steps = *rc::gen::scale(4, rc::gen::container<std::vector<Step>>(anyStep())); // up to 400
    testsupport::FoldersInMemory const inMemory;
    testsupport::TemporaryFolder const folder;
    testsupport::PrivateTemporaryArea const area;
    {
        ModelledPackage package(folder.corePath("package.txt"));

        for (auto const& step : steps)
            package.take(step);
        package.take({Deed::Commit});
        package.take({Deed::UseANewObject});
    }

    RC_ASSERT(area.entries().empty());
    RC_ASSERT(folder.entries().size() <= 1U);
}

/// Guards the property above: a serialiser that shares a fault with the library would hide it.
TEST(PackageModelTest, IsSerialisedAsTheFormatSays) {
    PackageModel const package{u"header\n",
                               {{u"/[Content_Types].xml", {"<Types/>", false}},
                                {u"/B", {"ends in LF\n", false}},
                                {u"/a", {"", true}},
                                {u"/_rels/.rels", {std::string(58, '\0'), true}},
                                {u"/metadata/z", {"", false}}}};

    EXPECT_EQ(fileOf(package), "header\n"
                               "\n"
                               "__ZKOPC_PACKAGE_BEGIN__ V3508k\n"
                               "__ZKOPC_PART_BEGIN__ /[Content_Types].xml\n"
                               "<Types/>\n"
                               "__ZKOPC_PART_BEGIN__ /_rels/.rels BASE64\n"
                               "AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA\n"
                               "AA==\n"
                               "__ZKOPC_PART_BEGIN__ /metadata/z\n"
                               "\n"
                               "__ZKOPC_PART_BEGIN__ /a BASE64\n"
                               "\n"
                               "__ZKOPC_PART_BEGIN__ /B\n"
                               "ends in LF\n"
                               "\n"
                               "__ZKOPC_PACKAGE_END__\n");
}

} // namespace
