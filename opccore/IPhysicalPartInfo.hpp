#pragma once

#include <cstdint>

#include <opccore/Export.hpp>

namespace opc::interfaces {

/// What a host may tell a package about a part that it is about to create; a package may ignore all of it.
///
/// Slots: the order of the virtual operations is part of the contract; the destructor comes last.
class OPCCORE_EXPORT IPhysicalPartInfo {
public:
    /// How the part should be compressed, as a number of the core's own; 0 where nothing is asked for.
    virtual std::int32_t getCompression() const = 0;

    /// The expected size of the content in bytes; 0 where it is not known.
    virtual std::int64_t getSize() const = 0;

    /// When the content was last changed, in seconds since 1970-01-01 UTC; 0 where it is not known.
    virtual std::int64_t getTimestamp() const = 0;

    virtual ~IPhysicalPartInfo() = default;

protected:
    IPhysicalPartInfo() = default;
    IPhysicalPartInfo(IPhysicalPartInfo const&) = default;
    IPhysicalPartInfo& operator=(IPhysicalPartInfo const&) = default;
};

} // namespace opc::interfaces
