#pragma once

#include <string>

#include <opccore/Export.hpp>

namespace opc::interfaces {

class IPhysicalInputStream;
class IPhysicalOutputStream;

/// One named part of a physical package.
///
/// Ownership: the package keeps its parts, a part keeps the streams that it hands out; the host borrows both.
/// Slots:     the order of the virtual operations is part of the contract; here the destructor comes last.
class OPCCORE_EXPORT IPhysicalPart {
public:
    /// The part name, for example "/_rels/.rels".
    virtual std::u16string getName() const = 0;

    /// The content type; empty where the package doesn't know it.
    virtual std::u16string getContentType() const = 0;

    /// A stream over the part's content, owned by the part.
    virtual IPhysicalInputStream* getInputStream() = 0;

    /// A stream that replaces the part's content, owned by the part; null where the package is read-only.
    virtual IPhysicalOutputStream* getOutputStream() = 0;

    virtual ~IPhysicalPart() = default;

protected:
    IPhysicalPart() = default;
    IPhysicalPart(IPhysicalPart const&) = default;
    IPhysicalPart& operator=(IPhysicalPart const&) = default;
};

} // namespace opc::interfaces
