#pragma once

#include <istream>

#include <opccore/IPhysicalInputStream.hpp>
#include <textpackage/Export.hpp>
#include <textpackage/FileStream.hpp>

namespace opc::textpackage {

/// Reads a part from its temporary file. Open after construction.
///
/// Lifetime: keeps a reference to the file system.
class TEXTPACKAGE_EXPORT FileInputStream : public interfaces::IPhysicalInputStream, public FileStream<std::istream> {
public:
    /// Throws as `open` does.
    FileInputStream(FileSystemOps& fileSystem, std::u16string const& path);

    /// Opens the file anew, at its start; leaves a stream that is open as it is.
    /// Throws `opc::Exception` "Failed to create or open file system input stream".
    void open() override;
    std::int64_t read(char* buffer, std::int64_t count) override;
    bool atEnd() override;
    void close() override;
    ~FileInputStream() override;
};

} // namespace opc::textpackage
