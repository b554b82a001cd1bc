#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <memory>
#include <string>

#include <boost/core/noncopyable.hpp>

#include <opccore/IPhysicalPart.hpp>
#include <textpackage/Export.hpp>

namespace opc::textpackage {

class BufferInputStream;
class FileInputStream;
class TextFilePhysicalPackage;

/// Where the data of a part lives and in which form. Bit 0: stored as Base64; bit 1: held in a temporary file.
enum class FilePartMode : std::uint32_t {
    BufferText = 0,     ///< slice of the mapped package file, as it is
    BufferBase64 = 1,   ///< slice of the mapped package file, Base64 lines
    TempFile = 2,       ///< temporary file, raw bytes
    TempFileBase64 = 3, ///< temporary file, still the Base64 lines
};

/// One part of a `TextFilePhysicalPackage`. Its data stays in the mapped package file until somebody reads it
/// decoded, writes it, or commits; then it moves into a temporary file of its own.
///
/// What is written goes to a file under the package's modified root, and what is read comes from the mapped file or a
/// file under the extracted root: content written through `getOutputStream` is not read back through
/// `getInputStream`. That is meant; it can be read once the package was closed and opened again.
///
/// Ownership: the package owns the part, the part owns the streams that it hands out.
class TEXTPACKAGE_EXPORT FilePart : public interfaces::IPhysicalPart, private boost::noncopyable {
public:
    /// An empty content type leaves it to `mode` whether the part is binary; so does any that contains none of
    /// "binary", "encryption" and, without "+xml", "image".
    /// Lifetime: keeps a reference to the package.
    FilePart(TextFilePhysicalPackage& package, std::u16string const& name, std::u16string const& contentType,
             FilePartMode mode);

    std::u16string getName() const override;
    std::u16string getContentType() const override;

    /// Text that is still in the mapped file: a new stream at its start, which invalidates the one before. Else the
    /// stream on the extracted file, the same until `close`; Base64 is decoded into that file first.
    /// Throws `opc::Exception` "Input stream is in an invalid state", or "Failed to write the decoded part to " and
    /// the path; what `TextFilePhysicalPackage::createFilePartInputStream` and `createFilePartOutputStream` throw; and
    /// `foundation::crypto::utils::Exception` for a line that is no Base64. The part stays as it was stored then.
    interfaces::IPhysicalInputStream* getInputStream() override;

    /// The stream on the file under the modified root, which it empties at first; the same until `close`. Marks the
    /// part as modified. Throws `opc::Exception` "Output stream is in an invalid state", and what
    /// `TextFilePhysicalPackage::createFilePartOutputStream` throws.
    interfaces::IPhysicalOutputStream* getOutputStream() override;

    FilePartMode getMode() const { return mode_; }

    /// Whether the data is in a temporary file.
    bool isCached() const;
    bool isModified() const { return isModified_; }

    /// Whether a part made to live in a temporary file has not been written yet.
    bool needFlush() const { return needFlush_; }

    /// Whether the part is stored as Base64.
    bool isBinary() const { return isBinary_; }

    /// The path of the part's temporary file under the modified root (true) or the extracted root (false). A
    /// component that would be too long for a file system is cut into several.
    /// Throws `opc::Exception` for a name that can't name a file inside a folder; see `FileSystemOps::appendPath`.
    std::u16string getTempFullPath(bool modified) const;
    std::u16string getExtractedFullPath() const { return getTempFullPath(false); }
    std::u16string getModifiedFullPath() const { return getTempFullPath(true); }

    /// Says where the part stands in the mapped file: byte offsets, end exclusive.
    void setContentRange(std::uint64_t begin, std::uint64_t end);

    /// Copies data that is still in the mapped file, as it is stored, into the extracted file.
    /// Throws `opc::Exception` "Failed to open file system output stream", or "Failed to write the stored part to "
    /// and the path.
    void extractToTempFile();

    /// Writes the part as the package file stores it: what is stored, unchanged; what is in a temporary file, in
    /// Base64 lines of 76 characters where `encode` is true.
    /// Throws what opening the temporary file throws, and `foundation::crypto::utils::Exception`
    /// "Unable to encode in Base64. Reason=" and the cause.
    void writeToStream(std::ostream& out, bool encode);

    /// Closes and destroys the streams on temporary files.
    void close();

    /// Tells the part that it was deleted or that another took its name. What is written to it from now on goes to a
    /// file that no other part has; `number`, not 0, tells retired parts apart.
    void retire(std::size_t number);

    ~FilePart() override;

private:
    bool isStoredAsBase64() const;
    interfaces::IPhysicalInputStream* openBufferStream();
    void decodeToTempFile();
    void writeTempFileTo(std::ostream& out, bool encode) const;

    TextFilePhysicalPackage& package_;
    FilePartMode mode_;
    std::uint64_t contentBegin_ = 0;
    std::uint64_t contentEnd_ = 0;
    std::u16string name_;
    std::u16string contentType_;
    std::unique_ptr<BufferInputStream> bufferStream_;
    std::unique_ptr<interfaces::IPhysicalInputStream> inputStream_;
    std::unique_ptr<interfaces::IPhysicalOutputStream> outputStream_;
    bool needFlush_;
    bool isModified_ = false;
    bool isBinary_;
    std::size_t retirement_ = 0;      // its number; 0: not retired
    bool keepsExtractedFile_ = false; // that it had when it was retired
};

} // namespace opc::textpackage
