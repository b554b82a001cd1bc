#include <tests/support/ZipFiles.hpp>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <thread>

#include <zip.h>
#include <zlib.h>

namespace testsupport {

namespace {

constexpr std::uint32_t In64Bits = 0xFFFFFFFF;
constexpr std::uint16_t Version = 20;
constexpr std::uint16_t FirstDosDate = 1 << 5 | 1; // 1980-01-01

/// A little-endian number of so many bytes.
std::string number(std::uint64_t value, int size) {
    std::string bytes;
    for (int i = 0; i < size; ++i)
        bytes += static_cast<char>(value >> 8 * i & 0xFF);
    return bytes;
}

std::uint32_t checksumOf(std::string_view content) {
    auto const* const bytes = reinterpret_cast<Bytef const*>(content.data());
    return static_cast<std::uint32_t>(::crc32_z(0, bytes, content.size()));
}

/// A member with all its fields filled in, and where it lies.
struct WrittenMember {
    WrittenMember(ZipMember const& member, std::uint64_t place, bool is64Bit)
        : name(member.name),
          data(member.data.value_or(member.method == Deflated ? deflated(member.content) : member.content)) {
        auto const compressedSize = member.compressedSize.value_or(static_cast<std::uint32_t>(data.size()));
        auto const size = member.size.value_or(static_cast<std::uint32_t>(member.content.size()));
        offset = member.headerOffset.value_or(static_cast<std::uint32_t>(place));
        bool const hasDescriptor = (member.flags & DescriptorFlag) != 0;
        auto const checksum = number(member.checksum.value_or(checksumOf(member.content)), 4);
        auto const sizes = number(compressedSize, 4) + number(size, 4);
        shared = number(member.flags, 2) + number(member.method, 2) + number(0, 2) + number(FirstDosDate, 2);
        fields = checksum + sizes;
        localFields = hasDescriptor ? std::string(12, '\0') : fields;
        descriptor = hasDescriptor ? "PK\x07\x08" + fields : "";
        extra = localExtra = member.extra;
        localName = member.localName.value_or(name);
        if (is64Bit) {
            fields = checksum + number(In64Bits, 4) + number(In64Bits, 4);
            extra += number(1, 2) + number(24, 2) + number(size, 8) + number(compressedSize, 8) + number(offset, 8);
            offset = In64Bits;
        }
    }

    std::string local() const {
        return "PK\x03\x04" + number(Version, 2) + shared + localFields + number(localName.size(), 2) +
               number(localExtra.size(), 2) + localName + localExtra + data + descriptor;
    }

    std::string entry() const {
        return "PK\x01\x02" + number(Version, 2) + number(Version, 2) + shared + fields + number(name.size(), 2) +
               number(extra.size(), 2) + std::string(10, '\0') + number(offset, 4) + name + extra;
    }

    std::string name, data, shared, fields, localFields, descriptor, extra, localExtra, localName;
    std::uint32_t offset;
};

struct ArchiveCloser {
    void operator()(zip_t* archive) const { zip_discard(archive); }
};
using Archive = std::unique_ptr<zip_t, ArchiveCloser>;

/// An archive over the bytes in a source, which is kept.
Archive openArchive(zip_source_t* source, int flags, std::string& fault) {
    zip_error_t error;
    zip_error_init(&error);
    zip_source_keep(source);
    Archive archive(zip_open_from_source(source, flags, &error));
    if (!archive) {
        fault = zip_error_strerror(&error);
        zip_source_free(source);
    }
    zip_error_fini(&error);
    return archive;
}

struct SourceCloser {
    void operator()(zip_source_t* source) const { zip_source_free(source); }
};
using Source = std::unique_ptr<zip_source_t, SourceCloser>;

std::string readSource(zip_source_t* source) {
    zip_stat_t status;
    zip_stat_init(&status);
    zip_source_stat(source, &status);
    std::string bytes(static_cast<std::size_t>(status.size), '\0');
    zip_source_open(source);
    auto const count = zip_source_read(source, bytes.data(), bytes.size());
    zip_source_close(source);
    if (count != static_cast<zip_int64_t>(bytes.size()))
        throw std::runtime_error("the ZIP library does not give back what it wrote");
    return bytes;
}

void addTo(zip_t* archive, ZipMember const& member) {
    auto* const source = zip_source_buffer(archive, member.content.data(), member.content.size(), 0);
    auto const index = zip_file_add(archive, member.name.c_str(), source, ZIP_FL_ENC_GUESS);
    if (index < 0 || zip_set_file_compression(archive, static_cast<zip_uint64_t>(index), member.method, 0) != 0)
        throw std::runtime_error("no member " + member.name);
}

/// Walks over the fields of a record. Throws where it ends too early or begins otherwise.
class Record {
public:
    Record(std::string_view bytes, std::size_t offset, std::string_view beginning)
        : rest_(bytes.substr(offset < bytes.size() ? offset : bytes.size())) {
        if (text(beginning.size()) != beginning)
            throw std::runtime_error("a record of the ZIP file is not where it should be");
    }

    std::string text(std::size_t size) {
        if (rest_.size() < size)
            throw std::runtime_error("a record of the ZIP file is cut off");
        std::string const bytes(rest_.substr(0, size));
        rest_.remove_prefix(size);
        return bytes;
    }

    std::uint32_t number32() { return static_cast<std::uint32_t>(number(4)); }
    std::uint16_t number16() { return static_cast<std::uint16_t>(number(2)); }

private:
    std::uint64_t number(std::size_t size) {
        std::uint64_t value = 0;
        auto const bytes = text(size);
        for (std::size_t i = size; i-- > 0;)
            value = value << 8 | static_cast<unsigned char>(bytes[i]);
        return value;
    }

    std::string_view rest_;
};

std::string inflated(std::string data, std::size_t size) {
    std::string content(size + 1, '\0'); // one more than it should fill
    z_stream stream{};
    stream.next_in = reinterpret_cast<Bytef*>(data.data());
    stream.avail_in = static_cast<uInt>(data.size());
    stream.next_out = reinterpret_cast<Bytef*>(content.data());
    stream.avail_out = static_cast<uInt>(content.size());
    ::inflateInit2(&stream, -MAX_WBITS);
    auto const outcome = ::inflate(&stream, Z_FINISH);
    ::inflateEnd(&stream);
    if (outcome != Z_STREAM_END || stream.total_out != size || stream.avail_in != 0)
        throw std::runtime_error("the data of a member are damaged");
    content.resize(size);
    return content;
}

StoredMember readMember(std::string_view bytes, Record& directory) {
    StoredMember member;
    directory.text(4); // versions
    member.flags = directory.number16();
    member.method = directory.number16();
    member.time = directory.number16();
    member.date = directory.number16();
    auto const checksum = directory.number32();
    auto const compressedSize = directory.number32();
    auto const size = directory.number32();
    auto const nameSize = directory.number16();
    auto const extraSize = directory.number16();
    auto const commentSize = directory.number16();
    directory.text(4); // disk, internal attributes
    member.attributes = directory.number32();
    auto const offset = directory.number32();
    member.name = directory.text(nameSize);
    member.extra = directory.text(extraSize);
    member.comment = directory.text(commentSize);

    Record local(bytes, offset, "PK\x03\x04");
    local.text(22); // what the directory says too
    auto const localNameSize = local.number16();
    auto const localExtraSize = local.number16();
    if (local.text(localNameSize) != member.name)
        throw std::runtime_error("member " + member.name + " has another name before its data");
    member.localExtra = local.text(localExtraSize);
    auto const data = local.text(compressedSize);
    member.content = member.method == Deflated ? inflated(data, size) : data;
    if (member.content.size() != size || checksumOf(member.content) != checksum)
        throw std::runtime_error("member " + member.name + " has another length or checksum than declared");
    return member;
}

} // namespace

std::string deflated(std::string_view content) {
    z_stream stream{};
    if (::deflateInit2(&stream, 9, Z_DEFLATED, -MAX_WBITS, 9, Z_DEFAULT_STRATEGY) != Z_OK)
        throw std::bad_alloc();
    std::string data(::deflateBound(&stream, static_cast<uLong>(content.size())), '\0');
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(content.data()));
    stream.avail_in = static_cast<uInt>(content.size());
    stream.next_out = reinterpret_cast<Bytef*>(data.data());
    stream.avail_out = static_cast<uInt>(data.size());
    ::deflate(&stream, Z_FINISH);
    data.resize(stream.total_out);
    ::deflateEnd(&stream);
    return data;
}

std::string zipBytes(std::vector<ZipMember> const& members, ZipLayout const& layout) {
    std::string bytes = layout.prefix;
    std::string directory;
    for (auto const& member : members) {
        WrittenMember const written(member, bytes.size(), layout.is64Bit);
        bytes += written.local();
        directory += written.entry();
    }
    bytes += layout.gap;
    auto const offset = bytes.size();
    auto const end = offset + directory.size();
    bytes += directory;
    if (layout.is64Bit) {
        bytes += "PK\x06\x06" + number(44, 8) + number(45, 2) + number(45, 2) + number(0, 8) +
                 number(members.size(), 8) + number(members.size(), 8) + number(directory.size(), 8) +
                 number(offset, 8);
        bytes += "PK\x06\x07" + number(0, 4) + number(end, 8) + number(1, 4);
    }
    auto const count = layout.count.value_or(layout.is64Bit ? 0xFFFF : static_cast<std::uint16_t>(members.size()));
    auto const size = layout.is64Bit ? In64Bits : directory.size();
    bytes += "PK\x05\x06" + number(0, 4) + number(count, 2) + number(count, 2);
    bytes += number(layout.directorySize.value_or(static_cast<std::uint32_t>(size)), 4);
    bytes += number(layout.directoryOffset.value_or(static_cast<std::uint32_t>(layout.is64Bit ? In64Bits : offset)), 4);
    return bytes + number(layout.comment.size(), 2) + layout.comment;
}

std::string libraryZipBytes(std::vector<ZipMember> const& members, std::string const& comment) {
    zip_error_t error;
    zip_error_init(&error);
    Source const source(zip_source_buffer_create(nullptr, 0, 0, &error));
    std::string fault;
    auto archive = openArchive(source.get(), ZIP_TRUNCATE, fault);
    if (!archive)
        throw std::runtime_error(fault);
    for (auto const& member : members)
        addTo(archive.get(), member);
    zip_set_archive_comment(archive.get(), comment.data(), static_cast<zip_uint16_t>(comment.size()));
    if (zip_close(archive.get()) != 0)
        throw std::runtime_error(zip_strerror(archive.get()));
    archive.release(); // zip_close has freed it
    return readSource(source.get());
}

std::vector<std::string> StoredZip::names() const {
    std::vector<std::string> result;
    for (auto const& member : members)
        result.push_back(member.name);
    return result;
}

std::map<std::string, std::string> StoredZip::contents() const {
    std::map<std::string, std::string> result;
    for (auto const& member : members) {
        if (member.name.empty() || member.name.back() != '/' || !member.content.empty())
            result[member.name] = member.content;
    }
    return result;
}

StoredZip readZip(std::string_view bytes) {
    StoredZip zip;
    auto const at = bytes.rfind("PK\x05\x06");
    Record end(bytes, at, "PK\x05\x06");
    end.text(4); // disks
    auto const count = end.number16();
    end.number16(); // the same for this disk
    end.number32(); // the directory's size
    Record directory(bytes, end.number32(), "");
    zip.comment = end.text(end.number16());
    for (int i = 0; i < count; ++i) {
        if (directory.text(4) != "PK\x01\x02")
            throw std::runtime_error("the directory of the ZIP file is damaged");
        zip.members.push_back(readMember(bytes, directory));
    }
    return zip;
}

std::vector<std::filesystem::path> zipFilesIn(std::filesystem::path const& folder) {
    std::vector<std::filesystem::path> files;
    for (auto const& entry : std::filesystem::directory_iterator(folder)) {
        char beginning[4] = {};
        std::ifstream file(entry.path(), std::ios::binary);
        if (file.read(beginning, sizeof beginning) && std::string_view(beginning, 4) == "PK\x03\x04")
            files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    return files;
}

bool spoilHiddenFile(std::filesystem::path const& folder, std::string const& ending, std::string const& bytes) {
    for (int attempt = 0; attempt < 5000; ++attempt, std::this_thread::sleep_for(std::chrono::milliseconds(2))) {
        for (auto const& entry : std::filesystem::directory_iterator(folder)) {
            if (entry.path().filename().string().front() != '.')
                continue;
            std::fstream file(entry.path(), std::ios::binary | std::ios::in | std::ios::out);
            std::string const content{std::istreambuf_iterator<char>(file), {}};
            auto const at = content.rfind(bytes);
            if (at == std::string::npos || content.size() < ending.size() ||
                content.compare(content.size() - ending.size(), ending.size(), ending) != 0)
                continue;
            file.clear();
            file.seekp(static_cast<std::streamoff>(at));
            file.put('X');
            return file.flush().good();
        }
    }
    return false;
}

std::string faultOfZip(std::string const& bytes) {
    zip_error_t error;
    zip_error_init(&error);
    Source const source(zip_source_buffer_create(bytes.data(), bytes.size(), 0, &error));
    std::string fault;
    openArchive(source.get(), ZIP_RDONLY | ZIP_CHECKCONS, fault);
    return fault;
}

} // namespace testsupport
