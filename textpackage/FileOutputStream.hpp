#pragma once

#include <ostream>

#include <opccore/IPhysicalOutputStream.hpp>
#include <textpackage/Export.hpp>
#include <textpackage/FileStream.hpp>

namespace opc::textpackage {

/// Writes a part into its temporary file. Open after construction, and closed for good by `close`.
///
/// Lifetime: keeps a reference to the file system.
class TEXTPACKAGE_EXPORT FileOutputStream : public interfaces::IPhysicalOutputStream, public FileStream<std::ostream> {
public:
    /// Creates or empties the file.
    /// Throws `opc::Exception` "Failed to create or open file system output stream: " and the path.
    FileOutputStream(FileSystemOps& fileSystem, std::u16string const& path);

    /// Throws `opc::Exception` "The string __ZKOPC_PA is not allowed in a TextFilePhysicalPackage part", with nothing
    /// of the block written, where the block holds that string. A string split across two blocks is not noticed.
    std::int64_t write(const char* buffer, std::int64_t count) override;
    bool hasFailed() override;
    void flush() override;
    void close() override;
    ~FileOutputStream() override;
};

} // namespace opc::textpackage
