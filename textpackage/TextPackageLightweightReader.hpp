#pragma once

#include <deque>
#include <iosfwd>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <opccore/IPhysicalPackage.hpp>
#include <opccore/LocalFileSystemOps.hpp>
#include <textpackage/Export.hpp>

namespace opc::textpackage {

class MemoryPart;

/// Reads a package that it never changes: streams the file once, keeps in memory the parts that somebody wants, and
/// stops as soon as the last of them was seen.
///
///     TextPackageLightweightReader reader(u"report.docx.txt");
///     reader.addRequestedPart(u"/docProps/core.xml");
///     reader.open(OpenMode::Read);
///     for (IPhysicalPart* part : reader.getParts()) ...
///
/// Kept are the first three parts, the parts under "/metadata/", and each requested part. Requested parts are found
/// in a file whose parts are in the order that the writer gives them (ascending, without regard to case); a part that
/// stands elsewhere may be missed. Within text parts CR LF arrives as LF. What will not be kept is passed over and
/// never in memory.
///
/// Ownership: the reader owns its parts; they live until `close`.
/// Threads:   one thread at a time; all the work happens in `open`.
class TEXTPACKAGE_EXPORT TextPackageLightweightReader : public interfaces::IPhysicalPackage {
public:
    /// Touches no file.
    explicit TextPackageLightweightReader(std::u16string const& path);

    TextPackageLightweightReader(TextPackageLightweightReader const&) = delete;
    TextPackageLightweightReader& operator=(TextPackageLightweightReader const&) = delete;

    /// Closes the reader.
    ~TextPackageLightweightReader() override;

    bool isOpen() const;

    /// Always true, open or not.
    bool hasContentTypeStream() const override;

    /// Throws as `getContentTypesPart` does.
    interfaces::IPhysicalInputStream* getContentTypeInputStream() override;

    /// Always null. Throws as `getContentTypesPart` does.
    interfaces::IPhysicalOutputStream* getContentTypeOutputStream() override;

    /// The kept parts but the content types part, in the order of their names' code units. Throws as
    /// `getContentTypesPart` does.
    std::vector<interfaces::IPhysicalPart*> getParts() override;

    /// Throws `opc::Exception` "Content types stream does not exist" where no part with exactly the name
    /// "/[Content_Types].xml" was kept, a closed reader included.
    MemoryPart* getContentTypesPart() const;

    FileSystemOps& getFSImpl();

    /// Asks for a part, without regard to the case of its name, at the next `open`. That `open` uses up the requests:
    /// a name that it found, or that it passed without finding, is not looked for again. A second `open` without new
    /// requests, after a search, stops after the first part of the file.
    void addRequestedPart(std::u16string const& name);

    /// Reads the file, unless the reader is open. Throws `opc::Exception`
    /// - "TextPackageLightweightReader can only open for Read" for every other mode;
    /// - "Package does not exist", with the generic code 2, where the path leads to no regular file;
    /// - "Content types stream does not exist" where no part of that name was kept;
    /// and what the scanner throws. The reader is closed and empty then.
    void open(interfaces::OpenMode const& mode) override;

    /// Destroys the parts; the argument is ignored.
    void close(bool discardChanges) override;

    /// Does nothing; returns null.
    interfaces::IPhysicalPart* createPart(std::u16string const& name, std::u16string const& contentType,
                                          interfaces::IPhysicalPartInfo const& info) override;

    /// Does nothing.
    void deletePart(std::u16string const& name) override;

    /// Reads parts from a stream that stands after the package-begin line, until nothing wanted is left.
    void readParts(std::istream& stream);

    /// Whether to keep a part, given the parts kept before it; uses up the requests that it answers or passes.
    bool processPart(std::u16string const& name);

    bool stillLookingForRequestedParts() const;

    /// Closes the streams of the kept parts.
    void closeParts();

    /// Destroys the kept parts.
    void cleanup();

private:
    enum class Interest { None, Always, IfRequested };

    Interest interestIn(std::u16string const& name) const;
    bool willKeep(std::u16string const& name) const;
    bool takeRequest(std::u16string const& name);
    void keep(std::unique_ptr<MemoryPart> part);

    LocalFileSystemOps fileSystemOps_;
    std::u16string packagePath_;
    std::deque<std::u16string> requestedParts_; // sorted while reading; consumed from its front
    bool searchStarted_ = false;                // some part was compared with the requests; never reset
    std::u16string contentTypesPartName_ = u"/[Content_Types].xml";
    bool isOpen_ = false;
    std::map<std::u16string, std::unique_ptr<MemoryPart>> parts_;
    std::vector<std::unique_ptr<MemoryPart>> displacedParts_; // by a later part of the same name
};

} // namespace opc::textpackage
