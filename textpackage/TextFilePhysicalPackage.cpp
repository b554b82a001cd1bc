#include <textpackage/TextFilePhysicalPackage.hpp>

#include <algorithm>
#include <istream>
#include <iterator>
#include <ostream>
#include <utility>

#include <opccore/Exception.hpp>
#include <opccore/StringConversion.hpp>
#include <opccore/TempfileGuard.hpp>
#include <opccore/caselessCompare.hpp>
#include <textpackage/FileInputStream.hpp>
#include <textpackage/FileOutputStream.hpp>
#include <textpackage/FilePart.hpp>
#include <textpackage/FilePartInfo.hpp>
#include <textpackage/PartIndex.hpp>
#include <textpackage/ScopeGuard.hpp>
#include <textpackage/TextFileBuffer.hpp>
#include <textpackage/TextPackageHelpers.hpp>

namespace opc::textpackage {

using interfaces::OpenMode;

namespace {

constexpr char ReleaseTag[] = "V3508k";
constexpr char16_t WorkingCopyName[] = u"_zkopc_packageCopy.txt";

// The gap between the two is meant: a name of 200 units stays whole, a longer one loses at least two.
constexpr std::size_t LongestFileNameKeptWhole = 200;
constexpr std::size_t CutFileName = 199;

/// Runs an action on folders and reports its failure as one of an output stream.
template <class Action>
void preparingFolders(Action action) {
    try {
        action();
    } catch (Exception const& failure) {
        throw Exception("Could not create directory structure for part output stream: " + failure.code().message(),
                        failure.code());
    }
}

void requireFewLines(std::u16string const& header) {
    if (std::count(header.begin(), header.end(), u'\n') > TextPackageHelpers::getMaximumHeaderLines())
        throw Exception("Header must not have more than 20 lines");
}

/// A part under its name, which can be compared there without a copy.
using NamedPart = std::pair<std::u16string const, std::unique_ptr<FilePart>>;

bool sortsBefore(NamedPart const* first, NamedPart const* second) {
    return caselessCompare(first->first, second->first) < 0;
}

bool isMetadata(NamedPart const* part) {
    static std::u16string const folder = u"/metadata/";
    return caselessCompare(part->first.substr(0, folder.size()), folder) == 0;
}

auto isCalled(std::u16string name) {
    return [name = std::move(name)](NamedPart const* part) { return caselessCompare(part->first, name) == 0; };
}

} // namespace

TextFilePhysicalPackage::TextFilePhysicalPackage(std::u16string const& path)
    : packagePath_(fileSystemOps_.normalizePath(path)) {
}

TextFilePhysicalPackage::~TextFilePhysicalPackage() {
    close(true);
    cleanup(); // of what was made without opening
}

std::string const& TextFilePhysicalPackage::getTextFilePhysicalPackageMarker() {
    return TextPackageHelpers::getPackageBegin();
}

std::int32_t TextFilePhysicalPackage::getMaximumHeaderLines() {
    return TextPackageHelpers::getMaximumHeaderLines();
}

bool TextFilePhysicalPackage::hasContentTypeStream() const {
    return true;
}

interfaces::IPhysicalInputStream* TextFilePhysicalPackage::getContentTypeInputStream() {
    return getContentTypesPart()->getInputStream();
}

interfaces::IPhysicalOutputStream* TextFilePhysicalPackage::getContentTypeOutputStream() {
    isModified_ = true;
    return getContentTypesPart()->getOutputStream();
}

std::vector<interfaces::IPhysicalPart*> TextFilePhysicalPackage::getParts() {
    auto const* const contentTypesPart = getContentTypesPart();
    std::vector<interfaces::IPhysicalPart*> result;
    for (auto const* const parts : {&changedParts_, &storedParts_}) {
        for (auto const& entry : *parts) {
            if (entry.second.get() != contentTypesPart)
                result.push_back(entry.second.get());
        }
    }
    return result;
}

FilePart* TextFilePhysicalPackage::getContentTypesPart() const {
    for (auto const* const parts : {&storedParts_, &changedParts_}) {
        auto const entry = parts->find(contentTypesPartName_);
        if (entry != parts->end())
            return entry->second.get();
    }
    throw Exception("Content types stream does not exist");
}

TextFileBuffer& TextFilePhysicalPackage::getTextFileBuffer() const {
    if (!textFileBuffer_)
        throw Exception("Package is not open for reading");
    return *textFileBuffer_;
}

bool TextFilePhysicalPackage::hasPart(std::u16string const& name) const {
    return storedParts_.count(name) != 0 || changedParts_.count(name) != 0;
}

bool TextFilePhysicalPackage::isWorkingCopy(std::u16string const& path) const {
    if (extractedPackageRoot_.empty())
        return false;
    auto const copy = fileSystemOps_.appendPath(extractedPackageRoot_, WorkingCopyName);
    return path.compare(0, copy.size(), copy) == 0 && (path.size() == copy.size() || path[copy.size()] == u'/');
}

void TextFilePhysicalPackage::open(OpenMode const& mode) {
    if (isOpen_)
        return;
    openMode_ = mode;
    ScopeGuard const openCleanupGuard([this] {
        if (!isOpen_)
            cleanup();
    });

    if (openMode_ == OpenMode::Read || openMode_ == OpenMode::ReadWrite)
        openInput();
    if (openMode_ == OpenMode::Create || openMode_ == OpenMode::ReadWrite)
        openOutput();
    isOpen_ = true;
}

void TextFilePhysicalPackage::openInput() {
    if (!fileSystemOps_.exists(packagePath_) || !fileSystemOps_.isFile(packagePath_))
        throw Exception("Package does not exist", make_error_code(boost::system::errc::no_such_file_or_directory));

    extractedPackageRoot_ = generateTempFolderName(u"_extracted_package_");
    boost::system::error_code code;
    fileSystemOps_.createFolders(extractedPackageRoot_, code);
    if (code)
        throw Exception("Could not create temporary directory structure for input: " + code.message(), code);

    auto const workingCopy = fileSystemOps_.appendPath(extractedPackageRoot_, WorkingCopyName);
    fileSystemOps_.copy(packagePath_, workingCopy, ExistsMode::Fail);
    fileSystemOps_.setPermissions(workingCopy, Perms::OwnerReadWrite);
    try {
        textFileBuffer_ = std::make_unique<TextFileBuffer>(workingCopy);
    } catch (...) {
        throw Exception("Could not create TextFileBuffer");
    }

    auto const buffer = textFileBuffer_->getFullStreambuf();
    std::istream stream(buffer.get());
    stream.exceptions(std::ios_base::badbit); // a line too long for the memory is not the end of the file
    TextPackageHelpers::findPackageBeginMarker(stream, [this](std::string const& line) {
        auto converted = toString(line, true); // of any length: a file without a package may be a single line
        if (textFileHeader_.empty())
            textFileHeader_ = std::move(converted);
        else
            textFileHeader_.append(u"\n").append(converted);
    });
    auto const begin = static_cast<std::uint64_t>(buffer->pubseekoff(0, std::ios_base::cur, std::ios_base::in));
    addStoredParts(textFileBuffer_->content().substr(begin), begin);
    getContentTypesPart();
}

void TextFilePhysicalPackage::openOutput() {
    // A part that was written before the package was opened has made this folder already.
    if (modifiedPackageRoot_.empty() || !fileSystemOps_.exists(modifiedPackageRoot_)) {
        modifiedPackageRoot_ = generateTempFolderName(u"_modified_package_");
        boost::system::error_code code;
        fileSystemOps_.createFolders(modifiedPackageRoot_, code);
        if (code)
            throw Exception("Could not create temporary directory structure for output: " + code.message(), code);
    }
    if (openMode_ == OpenMode::Create)
        createPart(contentTypesPartName_, u"", FilePartInfo());
}

void TextFilePhysicalPackage::close(bool discardChanges) {
    if (!isOpen_)
        return;
    isOpen_ = false;
    ScopeGuard const closeCleanupGuard([this] { cleanup(); });

    if (openMode_ != OpenMode::Read && isModified_ && !discardChanges)
        commitChanges();
    else
        closeParts();
}

interfaces::IPhysicalPart* TextFilePhysicalPackage::createPart(std::u16string const& name,
                                                               std::u16string const& contentType,
                                                               interfaces::IPhysicalPartInfo const& /*info*/) {
    auto part = std::make_unique<FilePart>(*this, name, contentType, FilePartMode::TempFile);
    auto* const created = part.get();
    put(changedParts_, std::move(part));
    isModified_ = true;
    return created;
}

void TextFilePhysicalPackage::deletePart(std::u16string const& name) {
    auto const entry = storedParts_.find(name);
    if (entry == storedParts_.end() && changedParts_.count(name) != 0)
        throw Exception("A part cannot be deleted if it has just been created or modified. "
                        "Package must be closed first.");
    if (entry == storedParts_.end())
        throw Exception("Part does not exist");

    auto& part = retire(entry->second);
    storedParts_.erase(entry);
    part.close();
    if (!extractedPackageRoot_.empty()) {
        boost::system::error_code ignored;
        fileSystemOps_.remove(part.getExtractedFullPath(), ignored);
    }
    isModified_ = true;
}

void TextFilePhysicalPackage::setCommitOptions(CommitOptions const& options) {
    auto copy = options; // all of them, or none
    commitOptions_ = std::move(copy);
}

void TextFilePhysicalPackage::setTextFileHeader(std::u16string const& header) {
    static std::u16string const packageBegin = toString(TextPackageHelpers::getPackageBegin(), true);
    if (header.find(packageBegin) != std::u16string::npos)
        throw Exception("Header must not contain the __ZKOPC_PACKAGE_BEGIN__ marker");
    if (header.compare(0, 2, u"PK") == 0)
        throw Exception("Header must not start with the characters 'PK'");
    requireFewLines(header);
    textFileHeader_ = header;
}

std::u16string TextFilePhysicalPackage::generateTempFolderName(std::u16string const& suffix) const {
    auto fileName = fileSystemOps_.getFilename(packagePath_);
    if (fileName.size() > LongestFileNameKeptWhole)
        fileName.resize(CutFileName);
    return fileSystemOps_.getTempName(u"") + suffix + fileName;
}

void TextFilePhysicalPackage::readParts(std::istream& stream) {
    if (!stream.good())
        return; // nothing can be read from it
    auto const begin = static_cast<std::uint64_t>(std::streamoff(stream.tellg()));
    std::string const text((std::istreambuf_iterator<char>(stream)), std::istreambuf_iterator<char>());
    addStoredParts(text, begin);
}

std::unique_ptr<interfaces::IPhysicalInputStream> TextFilePhysicalPackage::createFilePartInputStream(FilePart* part,
                                                                                                     bool modified) {
    bool const fromModified = modified && part->isModified();
    if ((fromModified ? modifiedPackageRoot_ : extractedPackageRoot_).empty())
        throw Exception("Failed to create or open file system input stream");
    return std::make_unique<FileInputStream>(fileSystemOps_, part->getTempFullPath(fromModified));
}

std::unique_ptr<interfaces::IPhysicalOutputStream> TextFilePhysicalPackage::createFilePartOutputStream(FilePart* part,
                                                                                                       bool modified) {
    if (openMode_ == OpenMode::ReadWrite)
        moveToChangedParts(part->getName());
    if (modified && modifiedPackageRoot_.empty())
        preparingFolders([this] { createPrivateModifiedRoot(); });
    if (!modified && extractedPackageRoot_.empty())
        throw Exception("Failed to create or open file system output stream: " + toUDEString(part->getName()));

    auto const path = part->getTempFullPath(modified);
    preparingFolders([&] {
        auto const folder = fileSystemOps_.getParentPath(path);
        if (!fileSystemOps_.exists(folder))
            fileSystemOps_.createFolders(folder);
    });
    if (modified)
        isModified_ = true;
    if (modified && !retiredParts_.empty()) { // one of which may still write to a file of this name: let it keep that
        boost::system::error_code ignored;
        fileSystemOps_.remove(path, ignored);
    }
    return std::make_unique<FileOutputStream>(fileSystemOps_, path);
}

void TextFilePhysicalPackage::writeHeaderToStream(std::ostream& out) const {
    if (!textFileHeader_.empty())
        out << detail::toUTF8String(textFileHeader_, true) << '\n';
    out << TextPackageHelpers::getPackageBegin() << ' ' << ReleaseTag << '\n';
}

void TextFilePhysicalPackage::writePartsToStream(std::ostream& out) const {
    std::vector<NamedPart const*> sequence;
    for (auto const* const parts : {&changedParts_, &storedParts_}) {
        for (auto const& entry : *parts)
            sequence.push_back(&entry);
    }
    auto const relationships = std::partition(sequence.begin(), sequence.end(), isCalled(contentTypesPartName_));
    auto const metadata = std::partition(relationships, sequence.end(), isCalled(u"/_rels/.rels"));
    auto const others = std::partition(metadata, sequence.end(), isMetadata);
    std::sort(metadata, others, sortsBefore);
    std::sort(others, sequence.end(), sortsBefore);

    for (auto const* const entry : sequence) {
        auto const& [name, part] = *entry;
        out << TextPackageHelpers::getPartSeparator() << ' ' << detail::toUTF8String(name, true)
            << (part->isBinary() ? " BASE64\n" : "\n");
        part->writeToStream(out, part->isBinary());
        out << '\n';
    }
    out << TextPackageHelpers::getPackageEnd() << '\n';
}

void TextFilePhysicalPackage::closeParts() {
    for (auto const* const parts : {&changedParts_, &storedParts_}) {
        for (auto const& entry : *parts)
            entry.second->close();
    }
}

void TextFilePhysicalPackage::revertChanges() {
    closeParts();
}

void TextFilePhysicalPackage::commitChanges() {
    requireFewLines(textFileHeader_); // it may have grown by opening again and again

    for (auto const& [name, part] : changedParts_) {
        if (part->needFlush())
            part->getOutputStream();
        part->close();
    }
    for (auto const* const parts : {&storedParts_, &changedParts_}) {
        for (auto const& [name, part] : *parts) {
            if (!part->isModified())
                part->extractToTempFile();
        }
    }
    textFileBuffer_.reset();

    util::TempfileGuard const newFile(u"", u"", u"");
    auto stream = fileSystemOps_.createOutputStream(newFile.getFileName(), StreamMode::Binary);
    writeHeaderToStream(*stream);
    writePartsToStream(*stream);
    stream->flush();
    stream.reset();
    fileSystemOps_.replaceFileWithBackup(packagePath_, fileSystemOps_, newFile.getFileName(), commitOptions_);
}

void TextFilePhysicalPackage::cleanup() {
    textFileBuffer_.reset();
    changedParts_.clear();
    storedParts_.clear();
    retiredParts_.clear();
    removeFolder(extractedPackageRoot_);
    removeFolder(modifiedPackageRoot_);
    isModified_ = false;
}

void TextFilePhysicalPackage::addStoredParts(std::string_view text, std::uint64_t offset) {
    indexParts(text, [&](IndexedPart const& indexed) {
        static std::u16string const trash = u"/[trash]";
        auto const& name = indexed.begin.name;
        if (name.compare(0, trash.size(), trash) == 0)
            return;
        auto const mode = indexed.begin.isBase64 ? FilePartMode::BufferBase64 : FilePartMode::BufferText;
        auto part = std::make_unique<FilePart>(*this, name, u"", mode);
        part->setContentRange(offset + indexed.contentBegin, offset + indexed.contentEnd);
        put(storedParts_, std::move(part));
    });
}

void TextFilePhysicalPackage::put(Parts& parts, std::unique_ptr<FilePart> part) {
    auto& entry = parts.try_emplace(parts.end(), part->getName())->second; // files hold parts in about this order
    if (entry)
        retire(entry);
    entry = std::move(part);
}

/// Takes the part over, or throws and leaves it where it is.
FilePart& TextFilePhysicalPackage::retire(std::unique_ptr<FilePart>& part) {
    retiredParts_.push_back(std::move(part));
    retiredParts_.back()->retire(retiredParts_.size());
    return *retiredParts_.back();
}

void TextFilePhysicalPackage::moveToChangedParts(std::u16string const& name) {
    auto const entry = storedParts_.find(name);
    if (entry == storedParts_.end())
        return;
    if (changedParts_.count(name) == 0) {
        changedParts_.insert(storedParts_.extract(entry));
    } else {
        retire(entry->second); // a part created under its name has taken its place
        storedParts_.erase(entry);
    }
}

/// For a part that is written although the package wasn't opened for it: the change goes nowhere, and does no harm.
void TextFilePhysicalPackage::createPrivateModifiedRoot() {
    auto root = generateTempFolderName(u"_modified_package_");
    fileSystemOps_.createFolders(root);
    modifiedPackageRoot_ = std::move(root);
}

/// Removes a folder and forgets its path; keeps the path of a folder that is not there.
void TextFilePhysicalPackage::removeFolder(std::u16string& root) noexcept {
    try {
        if (root.empty() || !fileSystemOps_.exists(root))
            return;
    } catch (...) {
        // What can't be examined may still be removed.
    }
    boost::system::error_code code;
    fileSystemOps_.removeAll(root, code);
    if (code == boost::system::errc::not_enough_memory)
        fileSystemOps_.removeAll(root, code); // others may have given some back, and nobody will try again
    root.clear();
}

} // namespace opc::textpackage
