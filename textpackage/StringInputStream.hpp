#pragma once

#include <sstream>
#include <string>

#include <opccore/IPhysicalInputStream.hpp>
#include <textpackage/Export.hpp>

namespace opc::textpackage {

/// Reads bytes that it keeps in memory. Never throws for a closed or exhausted state: reads then give 0.
///
/// Ownership: holds its own copy of the bytes.
class TEXTPACKAGE_EXPORT StringInputStream : public interfaces::IPhysicalInputStream {
public:
    /// A stream that is open and stands at the first byte of a copy of `bytes`.
    explicit StringInputStream(std::string const& bytes);

    /// Starts again from the first byte, whatever the state was.
    void open() override;
    std::int64_t read(char* buffer, std::int64_t count) override;
    bool atEnd() override;

    /// Keeps the bytes for a later `open`.
    void close() override;

    ~StringInputStream() override;

private:
    std::istringstream stream_;
    bool isOpen_ = true;
};

} // namespace opc::textpackage
