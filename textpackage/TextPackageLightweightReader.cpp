#include <textpackage/TextPackageLightweightReader.hpp>

#include <algorithm>
#include <istream>
#include <string_view>
#include <utility>

#include <opccore/Exception.hpp>
#include <opccore/caselessCompare.hpp>
#include <textpackage/MemoryPart.hpp>
#include <textpackage/PartScanner.hpp>
#include <textpackage/ScopeGuard.hpp>
#include <textpackage/StreamLines.hpp>
#include <textpackage/TextPackageHelpers.hpp>

namespace opc::textpackage {

namespace {

constexpr std::size_t PartsKeptWhateverTheirName = 3;

bool isCaselesslyEqual(std::u16string const& first, std::u16string const& second) {
    return caselessCompare(first, second) == 0;
}

bool sortsBefore(std::u16string const& first, std::u16string const& second) {
    return caselessCompare(first, second) < 0;
}

bool beginsCaselesslyWith(std::u16string const& name, std::u16string const& prefix) {
    return isCaselesslyEqual(name.substr(0, prefix.size()), prefix);
}

} // namespace

TextPackageLightweightReader::TextPackageLightweightReader(std::u16string const& path)
    : packagePath_(fileSystemOps_.normalizePath(path)) {
}

TextPackageLightweightReader::~TextPackageLightweightReader() {
    close(false);
}

bool TextPackageLightweightReader::isOpen() const {
    return isOpen_;
}

bool TextPackageLightweightReader::hasContentTypeStream() const {
    return true;
}

interfaces::IPhysicalInputStream* TextPackageLightweightReader::getContentTypeInputStream() {
    return getContentTypesPart()->getInputStream();
}

interfaces::IPhysicalOutputStream* TextPackageLightweightReader::getContentTypeOutputStream() {
    return getContentTypesPart()->getOutputStream();
}

std::vector<interfaces::IPhysicalPart*> TextPackageLightweightReader::getParts() {
    auto const* const contentTypesPart = getContentTypesPart();
    std::vector<interfaces::IPhysicalPart*> parts;
    for (auto const& entry : parts_) {
        if (entry.second.get() != contentTypesPart)
            parts.push_back(entry.second.get());
    }
    return parts;
}

MemoryPart* TextPackageLightweightReader::getContentTypesPart() const {
    auto const entry = parts_.find(contentTypesPartName_);
    if (entry == parts_.end())
        throw Exception("Content types stream does not exist");
    return entry->second.get();
}

FileSystemOps& TextPackageLightweightReader::getFSImpl() {
    return fileSystemOps_;
}

void TextPackageLightweightReader::addRequestedPart(std::u16string const& name) {
    requestedParts_.push_back(name);
}

void TextPackageLightweightReader::open(interfaces::OpenMode const& mode) {
    if (isOpen_)
        return;
    ScopeGuard const openCleanupGuard([this] {
        if (!isOpen_)
            cleanup();
    });

    if (mode != interfaces::OpenMode::Read)
        throw Exception("TextPackageLightweightReader can only open for Read");
    if (!fileSystemOps_.exists(packagePath_) || !fileSystemOps_.isFile(packagePath_)) {
        throw Exception("Package does not exist", make_error_code(boost::system::errc::no_such_file_or_directory));
    }

    auto const stream = fileSystemOps_.createInputStream(packagePath_, StreamMode::Binary);
    TextPackageHelpers::findPackageBeginMarker(*stream, [](std::string const& /*headerLine*/) {});
    readParts(*stream);
    getContentTypesPart();
    isOpen_ = true;
}

void TextPackageLightweightReader::close(bool /*discardChanges*/) {
    if (!isOpen_)
        return;
    isOpen_ = false;
    closeParts();
    cleanup();
}

interfaces::IPhysicalPart* TextPackageLightweightReader::createPart(std::u16string const& /*name*/,
                                                                    std::u16string const& /*contentType*/,
                                                                    interfaces::IPhysicalPartInfo const& /*info*/) {
    return nullptr;
}

void TextPackageLightweightReader::deletePart(std::u16string const& /*name*/) {
}

void TextPackageLightweightReader::readParts(std::istream& stream) {
    std::sort(requestedParts_.begin(), requestedParts_.end(), sortsBefore);

    std::unique_ptr<MemoryPart> currentPart;
    bool needsContent = false;
    std::string line;
    PartScanner scanner(
        [&](TextPackageHelpers::PartBegin const& begin) {
            currentPart = std::make_unique<MemoryPart>(*this, begin.name, begin.isBase64);
            needsContent = willKeep(begin.name);
        },
        [&] {
            auto part = std::move(currentPart);
            if (part && processPart(part->getName())) // no part: the package ends before its first one
                keep(std::move(part));
            return stillLookingForRequestedParts();
        },
        [&](std::string_view content) {
            line = content;
            currentPart->processLine(line);
        });
    StreamLines lines(stream);
    while ((scanner.isInPart() && !needsContent ? lines.nextMarker() : lines.next()) && scanner.take(lines.line())) {
    }
}

bool TextPackageLightweightReader::processPart(std::u16string const& name) {
    auto const interest = interestIn(name);
    if (interest != Interest::IfRequested)
        return interest == Interest::Always;
    searchStarted_ = true;
    return takeRequest(name);
}

bool TextPackageLightweightReader::stillLookingForRequestedParts() const {
    return !searchStarted_ || !requestedParts_.empty();
}

void TextPackageLightweightReader::closeParts() {
    for (auto const& entry : parts_)
        entry.second->close();
}

void TextPackageLightweightReader::cleanup() {
    parts_.clear();
    displacedParts_.clear();
}

TextPackageLightweightReader::Interest TextPackageLightweightReader::interestIn(std::u16string const& name) const {
    if (isCaselesslyEqual(name, u"/[trash]"))
        return Interest::None;
    if (parts_.size() < PartsKeptWhateverTheirName)
        return Interest::Always;
    // Meant: the test is on the beginning of the whole name, which "/_rels/.rels" doesn't have.
    if (beginsCaselesslyWith(name, u".rels"))
        return Interest::None;
    return beginsCaselesslyWith(name, u"/metadata/") ? Interest::Always : Interest::IfRequested;
}

/// What `processPart` will answer at the end of the part that begins now, without using up requests: a package may
/// break off before that.
bool TextPackageLightweightReader::willKeep(std::u16string const& name) const {
    auto const interest = interestIn(name);
    if (interest != Interest::IfRequested)
        return interest == Interest::Always;
    if (requestedParts_.empty())
        return false;
    int const order = caselessCompare(requestedParts_.front(), name); // the one that is due, where all are met
    if (order >= 0)
        return order == 0;
    return std::binary_search(requestedParts_.begin(), requestedParts_.end(), name, sortsBefore);
}

/// Whether the part was asked for. The parts come in ascending order, as the requests stand: a request that sorts
/// before this part can't be met any more and goes.
bool TextPackageLightweightReader::takeRequest(std::u16string const& name) {
    while (!requestedParts_.empty()) {
        int const order = caselessCompare(requestedParts_.front(), name);
        if (order > 0)
            return false;
        requestedParts_.pop_front();
        if (order == 0)
            return true;
    }
    return false;
}

void TextPackageLightweightReader::keep(std::unique_ptr<MemoryPart> part) {
    auto& entry = parts_.try_emplace(parts_.end(), part->getName())->second; // files hold parts in about this order
    if (entry)
        displacedParts_.push_back(std::move(entry)); // somebody may still hold it
    entry = std::move(part);
}

} // namespace opc::textpackage
