#include <textpackage/FilePart.hpp>

#include <istream>
#include <ostream>

#include <opccore/Base64.hpp>
#include <opccore/Exception.hpp>
#include <opccore/FileSystemOps.hpp>
#include <opccore/StringConversion.hpp>
#include <textpackage/Base64Encoder.hpp>
#include <textpackage/BufferInputStream.hpp>
#include <textpackage/FileInputStream.hpp>
#include <textpackage/FileOutputStream.hpp>
#include <textpackage/TextFileBuffer.hpp>
#include <textpackage/TextFilePhysicalPackage.hpp>

namespace opc::textpackage {

namespace {

constexpr std::size_t LongestNameKeptWhole = 250;
constexpr std::size_t LongestPiece = 250;

/// A folder for the file of a part that must not be where its name leads. No name leads to a component of this length.
std::u16string sideFolder(std::size_t number) {
    return std::u16string(2 * LongestPiece, u'x') + toString(std::to_string(number), true);
}

bool contains(std::u16string const& text, char16_t const* wanted) {
    return text.find(wanted) != std::u16string::npos;
}

bool isBinaryContentType(std::u16string const& contentType) {
    return contains(contentType, u"binary") || contains(contentType, u"encryption") ||
           (contains(contentType, u"image") && !contains(contentType, u"+xml"));
}

bool isBase64Mode(FilePartMode mode) {
    return mode == FilePartMode::BufferBase64 || mode == FilePartMode::TempFileBase64;
}

/// Cuts the components behind the root into pieces of 250 units, each but the last with "_x" at its end. One of 251
/// units stays whole where it isn't the last of the path: that is meant.
std::u16string withComponentsCut(std::u16string const& path, std::size_t rootSize) {
    std::u16string result = path.substr(0, rootSize);
    std::size_t count = 0; // of the units in the component so far
    for (std::size_t i = rootSize; i < path.size(); ++i) {
        if (path[i] == u'/') {
            count = 0;
        } else if (++count > LongestPiece && path.compare(i + 1, 1, u"/") != 0) {
            result += u"_x/";
            count = 1;
        }
        result += path[i];
    }
    return result;
}

template <class Stream>
void requireNotBad(Stream const& stream, char const* message) {
    if (stream.isBad())
        throw Exception(message);
}

} // namespace

FilePart::FilePart(TextFilePhysicalPackage& package, std::u16string const& name, std::u16string const& contentType,
                   FilePartMode mode)
    : package_(package),
      mode_(mode),
      name_(name),
      contentType_(contentType),
      needFlush_(mode == FilePartMode::TempFile || mode == FilePartMode::TempFileBase64),
      isBinary_(isBinaryContentType(contentType) || isBase64Mode(mode)) {
}

std::u16string FilePart::getName() const {
    return name_;
}

std::u16string FilePart::getContentType() const {
    return contentType_;
}

interfaces::IPhysicalInputStream* FilePart::getInputStream() {
    if (mode_ == FilePartMode::BufferText)
        return openBufferStream();
    if (mode_ == FilePartMode::BufferBase64)
        decodeToTempFile();
    if (!inputStream_) {
        inputStream_ = package_.createFilePartInputStream(this, false);
        requireNotBad(static_cast<FileInputStream const&>(*inputStream_), "Input stream is in an invalid state");
    }
    return inputStream_.get();
}

interfaces::IPhysicalOutputStream* FilePart::getOutputStream() {
    if (!outputStream_)
        outputStream_ = package_.createFilePartOutputStream(this, true);
    requireNotBad(static_cast<FileOutputStream const&>(*outputStream_), "Output stream is in an invalid state");
    needFlush_ = false;
    isModified_ = true;
    return outputStream_.get();
}

bool FilePart::isCached() const {
    return mode_ == FilePartMode::TempFile || mode_ == FilePartMode::TempFileBase64;
}

std::u16string FilePart::getTempFullPath(bool modified) const {
    auto const root = modified ? package_.getModifiedPackageRoot() : package_.getExtractedPackageRoot();
    auto const& fileSystem = package_.getFSImpl();
    if (retirement_ != 0 && (modified || !keepsExtractedFile_))
        return fileSystem.appendPath(fileSystem.appendPath(root, sideFolder(retirement_)), name_);
    if (name_.compare(0, 1, u"/") != 0 && package_.hasPart(u'/' + name_))
        throw Exception("Not a usable part name: \"" + toUDEString(name_) +
                        "\": another part's differs from it in the first slash alone");
    auto const path = fileSystem.appendPath(root, name_);
    if (!modified && package_.isWorkingCopy(path))
        return fileSystem.appendPath(fileSystem.appendPath(root, sideFolder(0)), name_);
    return name_.size() > LongestNameKeptWhole ? withComponentsCut(path, root.size()) : path;
}

void FilePart::setContentRange(std::uint64_t begin, std::uint64_t end) {
    contentBegin_ = begin;
    contentEnd_ = end;
}

void FilePart::extractToTempFile() {
    if (isCached())
        return;
    if (package_.getExtractedPackageRoot().empty())
        throw Exception("Failed to open file system output stream");
    auto const path = getExtractedFullPath();
    auto const& fileSystem = package_.getFSImpl();
    auto const folder = fileSystem.getParentPath(path);
    if (!fileSystem.exists(folder))
        fileSystem.createFolders(folder);

    boost::system::error_code code;
    auto stream = fileSystem.createOutputStream(path, StreamMode::Out | StreamMode::Binary, code);
    if (code)
        throw Exception("Failed to open file system output stream");
    writeToStream(*stream, false);
    stream->flush();
    if (!stream->good())
        throw Exception("Failed to write the stored part to " + toUDEString(path));
    stream.reset();
    mode_ = mode_ == FilePartMode::BufferBase64 ? FilePartMode::TempFileBase64 : FilePartMode::TempFile;
}

void FilePart::writeToStream(std::ostream& out, bool encode) {
    if (isModified_ || isCached()) {
        writeTempFileTo(out, encode);
    } else if (contentBegin_ < contentEnd_) { // inserting nothing would mark the stream as failed
        out << package_.getTextFileBuffer().getStreambuf(contentBegin_, contentEnd_).get();
    }
}

void FilePart::close() {
    if (inputStream_)
        inputStream_->close();
    inputStream_.reset();
    if (outputStream_)
        outputStream_->close();
    outputStream_.reset();
}

void FilePart::retire(std::size_t number) {
    retirement_ = number;
    keepsExtractedFile_ = isCached();
}

FilePart::~FilePart() {
    close();
}

interfaces::IPhysicalInputStream* FilePart::openBufferStream() {
    bufferStream_ =
        std::make_unique<BufferInputStream>(package_.getTextFileBuffer().getStreambuf(contentBegin_, contentEnd_));
    bufferStream_->open();
    requireNotBad(*bufferStream_, "Input stream is in an invalid state");
    return bufferStream_.get();
}

void FilePart::decodeToTempFile() {
    auto const slice = package_.getTextFileBuffer().getStreambuf(contentBegin_, contentEnd_);
    std::istream lines(slice.get());
    lines.exceptions(std::ios_base::badbit); // a line too long for the memory is not the end of the part
    auto const out = package_.createFilePartOutputStream(this, false);
    for (std::string line; std::getline(lines, line);) {
        auto const bytes = foundation::crypto::utils::base64Decode(line);
        out->write(reinterpret_cast<char const*>(bytes.data()), static_cast<std::int64_t>(bytes.size()));
    }
    out->flush();
    if (out->hasFailed())
        throw Exception("Failed to write the decoded part to " + toUDEString(getExtractedFullPath()));
    out->close();
    mode_ = FilePartMode::TempFile;
}

void FilePart::writeTempFileTo(std::ostream& out, bool encode) const {
    auto const in =
        package_.getFSImpl().createInputStream(getTempFullPath(isModified_), StreamMode::In | StreamMode::Binary);
    if (encode && mode_ != FilePartMode::TempFileBase64)
        return writeBase64Lines(*in, out);
    in->seekg(0, std::ios_base::end);
    bool const isEmpty = in->tellg() == std::streampos(0);
    in->seekg(0);
    if (!isEmpty) // inserting nothing would mark the stream as failed
        out << in->rdbuf();
}

} // namespace opc::textpackage
