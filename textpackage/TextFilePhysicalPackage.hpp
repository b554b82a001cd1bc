#pragma once

#include <cstdint>
#include <iosfwd>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <opccore/CommitOptions.hpp>
#include <opccore/IPhysicalPackage.hpp>
#include <opccore/LocalFileSystemOps.hpp>
#include <textpackage/Export.hpp>

namespace opc::interfaces {
class IPhysicalInputStream;
class IPhysicalOutputStream;
} // namespace opc::interfaces

namespace opc::textpackage {

class FilePart;
class TextFileBuffer;

/// A package stored as one text file, for reading and changing.
///
///     TextFilePhysicalPackage package(u"report.docx.txt");
///     package.open(OpenMode::ReadWrite);
///     for (IPhysicalPart* part : package.getParts()) ...
///     package.close(false); // commits
///
/// `open` works on a private copy of the file, so nothing that happens to the file while the package is open does any
/// harm; `close(false)` writes a new file and puts it in the place of the old one, which is whole until then.
///
/// Ownership: the package owns its parts and they their streams. A part stays valid until `close`, even when it was
///            deleted or another part took its name.
/// Lifetime:  destruction closes the package without committing.
/// Threads:   one thread at a time; separate packages share nothing.
class TEXTPACKAGE_EXPORT TextFilePhysicalPackage : public interfaces::IPhysicalPackage {
public:
    /// Touches no file.
    explicit TextFilePhysicalPackage(std::u16string const& path);

    TextFilePhysicalPackage(TextFilePhysicalPackage const&) = delete;
    TextFilePhysicalPackage& operator=(TextFilePhysicalPackage const&) = delete;

    ~TextFilePhysicalPackage() override;

    /// The text that the package-begin line begins with.
    static std::string const& getTextFilePhysicalPackageMarker();

    /// The most line breaks that a header may have.
    static std::int32_t getMaximumHeaderLines();

    bool isOpen() const { return isOpen_; }

    /// Always true.
    bool hasContentTypeStream() const override;

    /// Throws as `getContentTypesPart` does.
    interfaces::IPhysicalInputStream* getContentTypeInputStream() override;

    /// Marks the package as modified, even where it throws as `getContentTypesPart` does.
    interfaces::IPhysicalOutputStream* getContentTypeOutputStream() override;

    /// All parts but the content types part: the changed ones, then the stored ones, each in the order of their
    /// names' code units. Throws as `getContentTypesPart` does.
    std::vector<interfaces::IPhysicalPart*> getParts() override;

    /// Throws `opc::Exception` "Content types stream does not exist".
    FilePart* getContentTypesPart() const;

    /// The folder for the working copy and what is extracted from it; empty while there is none.
    std::u16string getExtractedPackageRoot() const { return extractedPackageRoot_; }

    /// The folder for changed parts; empty while there is none.
    std::u16string getModifiedPackageRoot() const { return modifiedPackageRoot_; }

    FileSystemOps& getFSImpl() { return fileSystemOps_; }

    /// The mapped working copy. Throws `opc::Exception` "Package is not open for reading" where there is none.
    TextFileBuffer& getTextFileBuffer() const;

    /// Whether there is a part of exactly this name.
    bool hasPart(std::u16string const& name) const;

    /// Whether a path leads to the working copy or would, were that a folder, lead into it.
    bool isWorkingCopy(std::u16string const& path) const;

    /// Opens the package, unless it is open. Lines above the package-begin line are added to the header text.
    /// Throws `opc::Exception`
    /// - "Package does not exist", with the generic code 2, where the path leads to no regular file;
    /// - "Could not create temporary directory structure for input: " or "... for output: " and the cause, with its
    ///   code;
    /// - "Could not create TextFileBuffer" where the working copy can't be mapped;
    /// - "Content types stream does not exist" where the file has no part of that name;
    /// and what the core throws when it can't copy the file, and the scanner when it can't read it. The package is
    /// closed then, and nothing is left in the temporary area.
    void open(interfaces::OpenMode const& mode) override;

    /// Closes the package, unless it is closed: commits when it was opened for creating or writing, was modified and
    /// `discardChanges` is false. Passes on what made a commit fail; the file is as it was then, and the package is
    /// closed all the same.
    void close(bool discardChanges) override;

    /// Adds an empty part, binary or text by its content type. A part that was created or changed under that name
    /// before takes no further part in the package. The name is not checked.
    interfaces::IPhysicalPart* createPart(std::u16string const& name, std::u16string const& contentType,
                                          interfaces::IPhysicalPartInfo const& info) override;

    /// Removes a part that was not created or changed since `open`. Throws `opc::Exception`
    /// - "A part cannot be deleted if it has just been created or modified. Package must be closed first.";
    /// - "Part does not exist".
    void deletePart(std::u16string const& name) override;

    /// How the next commits replace the file; may be called at any time.
    void setCommitOptions(CommitOptions const& options);

    /// The text above the package-begin line from the next commit on; empty for none. Throws `opc::Exception`, and
    /// keeps the earlier text,
    /// - "Header must not contain the __ZKOPC_PACKAGE_BEGIN__ marker";
    /// - "Header must not start with the characters 'PK'";
    /// - "Header must not have more than 20 lines", which counts LF.
    void setTextFileHeader(std::u16string const& header);

    /// A new path in the temporary area that ends with the suffix and the package's file name, cut to 199 UTF-16 units
    /// where it has more than 200.
    std::u16string generateTempFolderName(std::u16string const& suffix) const;

    /// Adds the parts of a package text as stored parts, from a seekable stream that stands after the package-begin
    /// line; their offsets are those of the stream. Throws what `TextPackageHelpers::readParts` throws.
    void readParts(std::istream& stream);

    /// A stream on the part's file under the modified root if `modified` is true and the part was modified, else under
    /// the extracted root.
    /// Throws `opc::Exception` "Failed to create or open file system input stream".
    std::unique_ptr<interfaces::IPhysicalInputStream> createFilePartInputStream(FilePart* part, bool modified);

    /// A stream on the part's file under the modified root (true), which marks the package as modified, or under the
    /// extracted root (false). In a package opened for writing the part then counts as changed.
    /// Throws `opc::Exception` "Could not create directory structure for part output stream: " and the cause, with its
    /// code, or "Failed to create or open file system output stream: " and the path.
    std::unique_ptr<interfaces::IPhysicalOutputStream> createFilePartOutputStream(FilePart* part, bool modified);

    /// Writes the header text and the package-begin line.
    void writeHeaderToStream(std::ostream& out) const;

    /// Writes all parts in their fixed order, and the package-end line.
    void writePartsToStream(std::ostream& out) const;

    /// Closes the streams of all parts.
    void closeParts();

    /// Does what `closeParts` does, and no more: that is meant.
    void revertChanges();

    /// Writes the package and puts it in the place of its file. Called by `close`.
    void commitChanges();

    /// Destroys the parts, releases the mapping and removes the temporary folders. Called by `close` and a failed
    /// `open`.
    void cleanup();

private:
    using Parts = std::map<std::u16string, std::unique_ptr<FilePart>>;

    void openInput();
    void openOutput();
    void addStoredParts(std::string_view text, std::uint64_t offset);
    void put(Parts& parts, std::unique_ptr<FilePart> part);
    FilePart& retire(std::unique_ptr<FilePart>& part);
    void moveToChangedParts(std::u16string const& name);
    void createPrivateModifiedRoot();
    void removeFolder(std::u16string& root) noexcept;

    LocalFileSystemOps fileSystemOps_;
    std::u16string packagePath_;
    std::u16string extractedPackageRoot_;
    std::u16string modifiedPackageRoot_;
    std::unique_ptr<TextFileBuffer> textFileBuffer_;
    std::u16string contentTypesPartName_ = u"/[Content_Types].xml";
    interfaces::OpenMode openMode_ = interfaces::OpenMode::Create; // of the last open
    bool isOpen_ = false;
    bool isModified_ = false;
    Parts storedParts_;                                   // not opened for writing
    Parts changedParts_;                                  // created or opened for writing
    std::vector<std::unique_ptr<FilePart>> retiredParts_; // deleted or displaced; the host may still hold them
    std::u16string textFileHeader_;                       // lines joined by LF, none at the end
    CommitOptions commitOptions_;
};

} // namespace opc::textpackage
