#include <opctext/ZipDirectory.hpp>

#include <algorithm>
#include <string_view>

#include <fmt/format.h>

#include <opctext/Failure.hpp>
#include <opctext/Messages.hpp>
#include <opctext/PackageListing.hpp>

namespace opctext {

namespace {

constexpr std::string_view LocalHeader = "PK\x03\x04";
constexpr std::string_view DirectoryHeader = "PK\x01\x02";
constexpr std::string_view EndRecord = "PK\x05\x06";
constexpr std::string_view Zip64EndRecord = "PK\x06\x06";
constexpr std::string_view Zip64Locator = "PK\x06\x07";
constexpr std::size_t LocalHeaderBytes = 30;
constexpr std::size_t DirectoryHeaderBytes = 46;
constexpr std::size_t EndRecordBytes = 22;
constexpr std::size_t Zip64LocatorBytes = 20;
constexpr std::size_t LongestComment = 65535;
constexpr std::uint16_t Zip64Extra = 1;
constexpr std::uint64_t InZip64 = 0xFFFFFFFF; // a value that stands in the 64-bit records

/// A little-endian number; 0 where the bytes don't reach so far.
std::uint64_t number(std::string_view bytes, std::size_t offset, std::size_t size) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < size && offset + i < bytes.size(); ++i)
        value |= static_cast<std::uint64_t>(static_cast<unsigned char>(bytes[offset + i])) << 8 * i;
    return value;
}

bool beginsWith(std::string_view bytes, std::string_view beginning) {
    return bytes.substr(0, beginning.size()) == beginning;
}

class DirectoryReader {
public:
    DirectoryReader(std::istream& file, std::string const& path) : file_(file), path_(path) {
        file_.seekg(0, std::ios::end);
        fileSize_ = static_cast<std::uint64_t>(std::streamoff(file_.tellg()));
    }

    std::vector<ZipEntry> read() {
        findDirectory();
        std::vector<ZipEntry> entries;
        for (auto offset = directoryBegin_; offset < directoryEnd_;)
            entries.push_back(readEntry(offset, entries.size()));
        requireNoOverlap(entries);
        return entries;
    }

private:
    [[noreturn]] void fail(std::string const& reason) const {
        throw Failure(ExitStatus::NotAPackage, path_ + ": " + reason);
    }

    /// Up to `size` bytes at an offset; fewer at the end of the file.
    std::string readAt(std::uint64_t offset, std::size_t size) {
        std::string bytes(size, '\0');
        file_.clear();
        file_.seekg(static_cast<std::streamoff>(std::min(offset, fileSize_)));
        file_.read(bytes.data(), static_cast<std::streamsize>(size));
        bytes.resize(static_cast<std::size_t>(file_.gcount()));
        return bytes;
    }

    /// Where the last end record stands whose comment ends as the condition says; npos where there is none.
    template <class Condition>
    static std::size_t findEndRecord(std::string const& tail, Condition isFit) {
        for (auto at = tail.rfind(EndRecord); at != std::string::npos;
             at = at == 0 ? std::string::npos : tail.rfind(EndRecord, at - 1)) {
            if (isFit(at + EndRecordBytes + number(tail, at + 20, 2), tail.size()))
                return at;
        }
        return std::string::npos;
    }

    void findDirectory() {
        auto const tailSize =
            static_cast<std::size_t>(std::min<std::uint64_t>(fileSize_, EndRecordBytes + LongestComment));
        auto const tail = readAt(fileSize_ - tailSize, tailSize);
        auto at = findEndRecord(tail, [](std::size_t commentEnd, std::size_t end) { return commentEnd == end; });
        if (at == std::string::npos) { // some programs leave bytes behind the comment
            at = findEndRecord(tail, [](std::size_t commentEnd, std::size_t end) { return commentEnd < end; });
            if (at != std::string::npos)
                tell(path_ + ": there are bytes behind the end of the ZIP file, which are left out");
        }
        if (at == std::string::npos)
            fail(beginsWith(readAt(0, 4), LocalHeader) ? "the ZIP file is cut off: its directory is missing"
                                                       : "this is not a ZIP file");
        directoryEnd_ = fileSize_ - tailSize + at;
        auto size = number(tail, at + 12, 4);
        directoryBegin_ = number(tail, at + 16, 4);
        auto const locator = at >= Zip64LocatorBytes ? std::string_view(tail).substr(at - Zip64LocatorBytes) : "";
        if (beginsWith(locator, Zip64Locator)) {
            directoryEnd_ = number(locator, 8, 8);
            auto const record = readAt(directoryEnd_, 56);
            if (!beginsWith(record, Zip64EndRecord))
                fail("the 64-bit end record of its directory is missing");
            requireSame(number(tail, at + 10, 2), number(record, 32, 8), 0xFFFF);
            requireSame(size, number(record, 40, 8), InZip64);
            requireSame(directoryBegin_, number(record, 48, 8), InZip64);
            size = number(record, 40, 8);
            directoryBegin_ = number(record, 48, 8);
        }
        if (directoryBegin_ > directoryEnd_ || directoryEnd_ - directoryBegin_ != size)
            fail("its directory is not where its end record says");
    }

    /// What the narrow end record says must be what the 64-bit one says, or refer to that: other programs may read the
    /// narrow one alone, and would see another package.
    void requireSame(std::uint64_t narrow, std::uint64_t wide, std::uint64_t referral) const {
        if (narrow != wide && narrow != referral)
            fail("its two end records say different things");
    }

    ZipEntry readEntry(std::uint64_t& offset, std::uint64_t index) {
        auto const header = readAt(offset, DirectoryHeaderBytes);
        if (header.size() != DirectoryHeaderBytes || !beginsWith(header, DirectoryHeader))
            fail(fmt::format("its directory is damaged at byte {}", offset));
        auto const nameSize = static_cast<std::size_t>(number(header, 28, 2));
        auto const extraSize = static_cast<std::size_t>(number(header, 30, 2));
        auto const text = readAt(offset + DirectoryHeaderBytes, nameSize + extraSize);
        ZipEntry entry{text.substr(0, nameSize), number(header, 20, 4), number(header, 24, 4), number(header, 42, 4),
                       index};
        if (text.size() > nameSize)
            readZip64Extra(std::string_view(text).substr(nameSize), entry);
        offset += DirectoryHeaderBytes + nameSize + extraSize + number(header, 32, 2);
        return entry;
    }

    static void readZip64Extra(std::string_view extra, ZipEntry& entry) {
        while (extra.size() >= 4) {
            auto const size = static_cast<std::size_t>(number(extra, 2, 2));
            auto field = extra.substr(4, size);
            if (number(extra, 0, 2) == Zip64Extra) {
                for (auto* const value : {&entry.size, &entry.compressedSize, &entry.headerOffset}) {
                    if (*value == InZip64) {
                        *value = number(field, 0, 8);
                        field.remove_prefix(std::min<std::size_t>(8, field.size()));
                    }
                }
            }
            extra.remove_prefix(std::min(extra.size(), 4 + size));
        }
    }

    void requireNoOverlap(std::vector<ZipEntry> entries) {
        std::sort(entries.begin(), entries.end(),
                  [](ZipEntry const& a, ZipEntry const& b) { return a.headerOffset < b.headerOffset; });
        for (std::size_t i = 0; i < entries.size(); ++i) {
            auto const& entry = entries[i];
            auto const header = readAt(entry.headerOffset, LocalHeaderBytes);
            if (header.size() != LocalHeaderBytes || !beginsWith(header, LocalHeader))
                fail("member " + printable(entry.name) + ": its data are not where the directory says");
            auto const nameSize = static_cast<std::size_t>(number(header, 26, 2));
            if (readAt(entry.headerOffset + LocalHeaderBytes, nameSize) != entry.name)
                fail("member " + printable(entry.name) + ": it has another name before its data");
            auto const begin = entry.headerOffset + LocalHeaderBytes + nameSize + number(header, 28, 2);
            bool const isLast = i + 1 == entries.size();
            auto const limit = isLast ? directoryBegin_ : entries[i + 1].headerOffset;
            if (begin > limit || entry.compressedSize > limit - begin)
                fail("member " + printable(entry.name) + ": its data overlap " +
                     (isLast ? std::string("the directory") : "member " + printable(entries[i + 1].name)));
        }
    }

    std::istream& file_;
    std::string const& path_;
    std::uint64_t fileSize_ = 0;
    std::uint64_t directoryBegin_ = 0;
    std::uint64_t directoryEnd_ = 0;
};

} // namespace

std::vector<ZipEntry> readZipDirectory(std::istream& file, std::string const& path) {
    return DirectoryReader(file, path).read();
}

} // namespace opctext
