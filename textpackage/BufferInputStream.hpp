#pragma once

#include <istream>

#include <opccore/IPhysicalInputStream.hpp>
#include <textpackage/BufferStream.hpp>
#include <textpackage/Export.hpp>

namespace opc::textpackage {

/// Reads a part straight from its slice of the mapped package file. Closed until `open`.
///
/// Lifetime: must not outlive the mapping behind its buffer.
class TEXTPACKAGE_EXPORT BufferInputStream : public interfaces::IPhysicalInputStream,
                                             public BufferStream<std::istream> {
public:
    explicit BufferInputStream(std::unique_ptr<std::streambuf> buffer);

    /// Starts at the first byte of the slice; leaves a stream that is open as it is.
    void open() override;
    std::int64_t read(char* buffer, std::int64_t count) override;
    bool atEnd() override;
    void close() override;
    ~BufferInputStream() override;
};

} // namespace opc::textpackage
