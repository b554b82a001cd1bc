#pragma once

#include <string>
#include <vector>

#include <opccore/Export.hpp>
#include <opccore/OpenMode.hpp>

namespace opc::interfaces {

class IPhysicalInputStream;
class IPhysicalOutputStream;
class IPhysicalPart;
class IPhysicalPartInfo;

/// A physical package: named parts and a content types part, in whatever form it stores them.
///
/// Ownership: every pointer that a package hands out is borrowed and stays valid until `close`.
/// Slots:     the order of the virtual operations is part of the contract; here the destructor comes first.
class OPCCORE_EXPORT IPhysicalPackage {
public:
    virtual ~IPhysicalPackage() = default;

    virtual bool hasContentTypeStream() const = 0;

    /// The content types part's input stream.
    virtual IPhysicalInputStream* getContentTypeInputStream() = 0;

    /// The content types part's output stream; null where the package is read-only.
    virtual IPhysicalOutputStream* getContentTypeOutputStream() = 0;

    /// Every part but the content types part.
    virtual std::vector<IPhysicalPart*> getParts() = 0;

    virtual void open(OpenMode const& mode) = 0;

    /// Ends the use of the package: `discardChanges` false commits what was changed, true drops it.
    virtual void close(bool discardChanges) = 0;

    /// Adds an empty part; null where the package is read-only.
    virtual IPhysicalPart* createPart(std::u16string const& name, std::u16string const& contentType,
                                      IPhysicalPartInfo const& info) = 0;

    virtual void deletePart(std::u16string const& name) = 0;

protected:
    IPhysicalPackage() = default;
    IPhysicalPackage(IPhysicalPackage const&) = default;
    IPhysicalPackage& operator=(IPhysicalPackage const&) = default;
};

} // namespace opc::interfaces
