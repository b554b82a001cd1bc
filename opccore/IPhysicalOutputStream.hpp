#pragma once

#include <cstdint>

#include <opccore/Export.hpp>

namespace opc::interfaces {

/// Writes the content of one part.
///
/// Ownership: the part that handed the stream out keeps it; the host never deletes it.
/// Slots:     the order of the virtual operations, the destructor's place included, is part of the contract.
class OPCCORE_EXPORT IPhysicalOutputStream {
public:
    /// Writes `count` bytes from `buffer` and returns the count: 0 when no stream is open or its state is not good,
    /// 0 for a negative count.
    virtual std::int64_t write(const char* buffer, std::int64_t count) = 0;

    /// True when no stream is open or its state is not good.
    virtual bool hasFailed() = 0;

    /// Hands on what is buffered, when a stream is open.
    virtual void flush() = 0;

    /// Releases what the stream writes to; writes then give 0.
    virtual void close() = 0;

    virtual ~IPhysicalOutputStream() = default;

protected:
    IPhysicalOutputStream() = default;
    IPhysicalOutputStream(IPhysicalOutputStream const&) = default;
    IPhysicalOutputStream& operator=(IPhysicalOutputStream const&) = default;
};

} // namespace opc::interfaces
