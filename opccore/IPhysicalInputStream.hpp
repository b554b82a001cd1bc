#pragma once

#include <cstdint>

#include <opccore/Export.hpp>

namespace opc::interfaces {

/// Reads the content of one part from its first byte.
///
/// Ownership: the part that handed the stream out keeps it; the host never deletes it.
/// Slots:     the order of the virtual operations, the destructor's place included, is part of the contract.
class OPCCORE_EXPORT IPhysicalInputStream {
public:
    /// Makes the stream ready to read from the start of the content. What it does to a stream that is already open
    /// is for each implementation to say.
    virtual void open() = 0;

    /// Reads up to `count` bytes into `buffer` and returns how many were read: fewer than asked at the end of the
    /// content, 0 when no stream is open or its state is not good, 0 for a negative count.
    virtual std::int64_t read(char* buffer, std::int64_t count) = 0;

    /// True when no stream is open, or when the end was reached or a read failed.
    virtual bool atEnd() = 0;

    /// Releases what the stream reads from; reads then give 0 until `open`.
    virtual void close() = 0;

    virtual ~IPhysicalInputStream() = default;

protected:
    IPhysicalInputStream() = default;
    IPhysicalInputStream(IPhysicalInputStream const&) = default;
    IPhysicalInputStream& operator=(IPhysicalInputStream const&) = default;
};

} // namespace opc::interfaces
