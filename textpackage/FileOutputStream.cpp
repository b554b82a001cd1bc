#include <textpackage/FileOutputStream.hpp>

#include <string_view>

#include <opccore/Exception.hpp>
#include <opccore/StringConversion.hpp>
#include <textpackage/PartScanner.hpp>

namespace opc::textpackage {

FileOutputStream::FileOutputStream(FileSystemOps& fileSystem, std::u16string const& path)
    : FileStream<std::ostream>(fileSystem, path) {
    boost::system::error_code code;
    stream_ = fileSystem_.createOutputStream(path_, StreamMode::Out | StreamMode::Binary, code);
    if (code)
        throw Exception("Failed to create or open file system output stream: " + toUDEString(path_));
}

std::int64_t FileOutputStream::write(const char* buffer, std::int64_t count) {
    if (!isGood() || count < 0)
        return 0;
    // Each block is looked at alone; that is meant.
    std::string_view const block(buffer, static_cast<std::size_t>(count));
    if (block.find(PartScanner::markerBeginning) != std::string_view::npos)
        throw Exception("The string __ZKOPC_PA is not allowed in a TextFilePhysicalPackage part");
    stream_->write(buffer, count);
    return count;
}

bool FileOutputStream::hasFailed() {
    return !isGood();
}

void FileOutputStream::flush() {
    if (stream_)
        stream_->flush();
}

void FileOutputStream::close() {
    stream_.reset();
}

FileOutputStream::~FileOutputStream() = default;

} // namespace opc::textpackage
