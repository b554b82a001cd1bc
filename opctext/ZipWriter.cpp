#include <opctext/ZipWriter.hpp>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <fstream>
#include <utility>

#include <zip.h>
#include <zlib.h>

#include <opccore/IPhysicalInputStream.hpp>
#include <opccore/IPhysicalPart.hpp>
#include <opctext/Failure.hpp>
#include <opctext/OpenPackage.hpp>

namespace opctext {

namespace {

constexpr zip_uint32_t Level = 6; // as the zip program's own

/// The time that all members get: what SOURCE_DATE_EPOCH says, in UTC, or the first that the format knows.
struct DosTime {
    zip_uint16_t time = 0;
    zip_uint16_t date = 1 << 5 | 1; // 1980-01-01

    static DosTime ofMembers() {
        auto const* const epoch = std::getenv("SOURCE_DATE_EPOCH");
        if (epoch == nullptr || *epoch == '\0')
            return {};
        char* end = nullptr;
        auto const seconds = static_cast<std::time_t>(std::strtoll(epoch, &end, 10));
        std::tm utc{};
        if (*end != '\0' || ::gmtime_r(&seconds, &utc) == nullptr)
            throw Failure(ExitStatus::WrongUsage, "SOURCE_DATE_EPOCH is no number of seconds: " + std::string(epoch));
        int const year = utc.tm_year + 1900;
        if (year < 1980 || year > 2107) // which the format can't hold
            return {};
        return {static_cast<zip_uint16_t>(utc.tm_hour << 11 | utc.tm_min << 5 | utc.tm_sec / 2),
                static_cast<zip_uint16_t>((year - 1980) << 9 | (utc.tm_mon + 1) << 5 | utc.tm_mday)};
    }
};

/// Counts what deflating would make of the bytes that it is given.
class DeflateProbe {
public:
    DeflateProbe() {
        if (::deflateInit2(&stream_, static_cast<int>(Level), Z_DEFLATED, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY) != Z_OK)
            throw std::bad_alloc();
    }
    DeflateProbe(DeflateProbe const&) = delete;
    DeflateProbe& operator=(DeflateProbe const&) = delete;
    ~DeflateProbe() { ::deflateEnd(&stream_); }

    void add(std::string_view bytes) { run(bytes, Z_NO_FLUSH); }

    std::uint64_t finish() {
        run({}, Z_FINISH);
        return size_;
    }

private:
    void run(std::string_view bytes, int flush) {
        stream_.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));
        stream_.avail_in = static_cast<uInt>(bytes.size());
        do {
            stream_.next_out = buffer_.data();
            stream_.avail_out = static_cast<uInt>(buffer_.size());
            ::deflate(&stream_, flush);
            size_ += buffer_.size() - stream_.avail_out;
        } while (stream_.avail_out == 0);
    }

    z_stream stream_{};
    std::array<Bytef, 16384> buffer_;
    std::uint64_t size_ = 0;
};

bool shrinks(IPhysicalPart& part, std::uint64_t size) {
    DeflateProbe probe;
    readContent(part, [&](std::string_view block) { probe.add(block); });
    return probe.finish() < size;
}

} // namespace

/// A part as the ZIP library reads it.
struct ZipWriter::Member {
    opc::interfaces::IPhysicalPart& part;
    std::uint64_t size;
    opc::interfaces::IPhysicalInputStream* stream = nullptr;
    std::string failure; // of the part
    zip_error_t error{}; // the same for the library

    Member(opc::interfaces::IPhysicalPart& readPart, std::uint64_t partSize) : part(readPart), size(partSize) {
        zip_error_init(&error);
    }

    /// The library calls this; no exception may pass through it.
    static zip_int64_t answer(void* state, void* data, zip_uint64_t length, zip_source_cmd_t command) {
        auto& member = *static_cast<Member*>(state);
        try {
            return member.answer(data, length, command);
        } catch (std::exception const& failure) {
            member.failure = failure.what();
            zip_error_set(&member.error, ZIP_ER_READ, 0);
            return -1;
        }
    }

    zip_int64_t answer(void* data, zip_uint64_t length, zip_source_cmd_t command) {
        switch (command) {
        case ZIP_SOURCE_OPEN:
            stream = part.getInputStream();
            stream->close(); // so that it starts at the first byte
            stream->open();
            return 0;
        case ZIP_SOURCE_READ:
            return stream->read(static_cast<char*>(data), static_cast<std::int64_t>(length));
        case ZIP_SOURCE_CLOSE:
            stream->close();
            return 0;
        case ZIP_SOURCE_STAT: {
            auto& status = *static_cast<zip_stat_t*>(data);
            zip_stat_init(&status);
            status.size = size;
            status.valid = ZIP_STAT_SIZE;
            return sizeof status;
        }
        case ZIP_SOURCE_ERROR:
            return zip_error_to_data(&error, data, length);
        case ZIP_SOURCE_FREE:
            return 0;
        case ZIP_SOURCE_SUPPORTS:
            return ZIP_SOURCE_SUPPORTS_READABLE;
        default:
            zip_error_set(&error, ZIP_ER_OPNOTSUPP, 0);
            return -1;
        }
    }
};

ZipWriter::ZipWriter(std::string path) : path_(std::move(path)) {
    int error = 0;
    archive_ = zip_open(path_.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &error);
    if (archive_ == nullptr)
        throw Failure(ExitStatus::InputOutput, path_ + ": no ZIP file can be made here");
}

ZipWriter::~ZipWriter() {
    if (archive_ != nullptr)
        zip_discard(archive_);
}

void ZipWriter::setComment(std::string const& comment) {
    if (zip_set_archive_comment(archive_, comment.data(), static_cast<zip_uint16_t>(comment.size())) != 0)
        refusedComment_ = comment; // for its control characters
}

void ZipWriter::add(std::string const& memberName, opc::interfaces::IPhysicalPart& part, std::uint64_t size,
                    bool isText) {
    bool const deflates = size > 0 && (isText || shrinks(part, size));
    members_.push_back(std::make_unique<Member>(part, size));
    auto* const source = zip_source_function(archive_, &Member::answer, members_.back().get());
    if (source == nullptr)
        fail();
    // The library refuses to call some names UTF-8, with control characters for example; their bytes are kept anyway.
    auto index = zip_file_add(archive_, memberName.c_str(), source, ZIP_FL_ENC_UTF_8);
    if (index < 0)
        index = zip_file_add(archive_, memberName.c_str(), source, ZIP_FL_ENC_GUESS);
    if (index < 0) {
        zip_source_free(source);
        fail();
    }
    auto const time = DosTime::ofMembers();
    auto const number = static_cast<zip_uint64_t>(index);
    if (zip_set_file_compression(archive_, number, deflates ? ZIP_CM_DEFLATE : ZIP_CM_STORE, deflates ? Level : 0) !=
            0 ||
        zip_file_set_dostime(archive_, number, time.time, time.date, 0) != 0)
        fail();
}

void ZipWriter::finish() {
    if (zip_close(archive_) != 0) {
        for (auto const& member : members_) {
            if (!member->failure.empty())
                throw Failure(ExitStatus::NotAPackage, nameOf(member->part) + ": " + member->failure);
        }
        fail();
    }
    archive_ = nullptr;
    if (!refusedComment_.empty())
        appendComment();
}

/// The end record is the last of the file, and the length of the comment its last field.
void ZipWriter::appendComment() const {
    std::fstream file(path_, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(-2, std::ios::end);
    auto const size = refusedComment_.size();
    file.put(static_cast<char>(size & 0xFF)).put(static_cast<char>(size >> 8));
    file.write(refusedComment_.data(), static_cast<std::streamsize>(size));
    file.close();
    if (!file)
        throw Failure(ExitStatus::InputOutput, "the comment of the ZIP file could not be written");
}

void ZipWriter::fail() const {
    throw Failure(ExitStatus::InputOutput, std::string("the ZIP file could not be written: ") + zip_strerror(archive_));
}

} // namespace opctext
