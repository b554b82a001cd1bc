#include <opctext/ZipReader.hpp>

#include <algorithm>
#include <istream>

#include <fmt/format.h>
#include <zip.h>

#include <opccore/LocalFileSystemOps.hpp>
#include <opccore/StringConversion.hpp>
#include <opctext/Fingerprint.hpp>
#include <opctext/Inflater.hpp>
#include <opctext/Messages.hpp>
#include <opctext/PackageFile.hpp>
#include <opctext/memberNames.hpp>

namespace opctext {

namespace {

constexpr std::uint64_t RatioCountsFrom = std::uint64_t{8} << 20;
constexpr std::uint64_t BestRatioOfDeflate = 1032; // a block of 258 equal bytes takes two bits

/// Whether the entry only names a folder. Two bytes are what deflating nothing gives.
bool isFolder(ZipEntry const& entry) {
    return !entry.name.empty() && entry.name.back() == '/' && entry.size == 0 && entry.compressedSize <= 2;
}

struct MemberCloser {
    void operator()(zip_file_t* member) const { zip_fclose(member); }
};

} // namespace

ZipReader::ZipReader(PackageFile const& file, ZipLimits const& limits) : file_(file), limits_(limits) {
    std::vector<ZipEntry> entries;
    file_.run([&] {
        auto const stream = opc::LocalFileSystemOps().createInputStream(file_.corePath(),
                                                                        opc::StreamMode::In | opc::StreamMode::Binary);
        entries = readZipDirectory(*stream, file_.path());
    });
    if (entries.size() > limits_.parts)
        fail(fmt::format("it has {} members, more than the limit of {} (--max-parts)", entries.size(), limits_.parts),
             ExitStatus::LimitExceeded);

    int error = 0;
    archive_.reset(zip_open(opc::detail::makeNativePath(file_.corePath()).c_str(), ZIP_RDONLY, &error));
    if (!archive_) {
        zip_error_t details;
        zip_error_init_with_code(&details, error);
        std::string const reason = zip_error_strerror(&details);
        zip_error_fini(&details);
        fail("this ZIP file can't be opened: " + reason);
    }
    if (static_cast<std::uint64_t>(zip_get_num_entries(archive_.get(), 0)) != entries.size())
        fail("its directory is ambiguous");
    for (auto const& entry : entries) {
        requireMember(entry);
        auto const folder = isFolder(entry);
        auto const unsafety = findUnsafety(folder ? entry.name.substr(0, entry.name.size() - 1) : entry.name);
        if (!unsafety.empty())
            fail("member " + printable(entry.name) + ": " + unsafety, ExitStatus::UnsafeName);
        if (!folder)
            members_.push_back(entry);
    }
}

std::string ZipReader::comment() const {
    int size = 0;
    auto const* const text = zip_get_archive_comment(archive_.get(), &size, ZIP_FL_ENC_RAW);
    return text == nullptr ? std::string() : std::string(text, static_cast<std::size_t>(size));
}

std::string ZipReader::read(ZipEntry const& member) {
    auto const prefix = "member " + printable(member.name) + ": ";
    zip_stat_t status;
    zip_stat_init(&status);
    zip_stat_index(archive_.get(), member.index, 0, &status);
    // Deflated data are inflated here: the ZIP library stops at their end without looking at what is left.
    bool const isDeflated = status.comp_method == ZIP_CM_DEFLATE;
    std::unique_ptr<zip_file_t, MemberCloser> const stream(
        zip_fopen_index(archive_.get(), member.index, isDeflated ? ZIP_FL_COMPRESSED : 0));
    if (!stream)
        fail(prefix + zip_strerror(archive_.get()));

    // A bomb is refused before it is inflated, by the size that it declares; one that declares another size, as soon as
    // that shows. Nothing is allocated for what is only declared: the content grows as it comes.
    if (isDeflated && member.size / BestRatioOfDeflate > member.compressedSize)
        fail(fmt::format("{}its data can't be inflated to the {} bytes declared", prefix, member.size));
    requireWithinLimits(member);
    std::string content;
    auto const append = [&](std::string_view bytes) {
        content += bytes;
        if (content.size() > member.size)
            fail(fmt::format("{}it has more than the {} bytes declared", prefix, member.size));
    };
    Inflater inflater;
    std::string block(65536, '\0');
    while (auto const count = zip_fread(stream.get(), block.data(), block.size())) {
        if (count < 0)
            fail(prefix + "its data are damaged: " + zip_file_strerror(stream.get()));
        std::string_view const bytes(block.data(), static_cast<std::size_t>(count));
        if (!isDeflated)
            append(bytes);
        else if (!inflater.take(bytes, append))
            fail(prefix + "its data are damaged");
    }
    Fingerprint fingerprint;
    fingerprint.add(content);
    if (isDeflated && !inflater.isComplete())
        fail(prefix + "its data break off");
    if (content.size() != member.size)
        fail(fmt::format("{}it has {} bytes, not {} as declared", prefix, content.size(), member.size));
    if (fingerprint.checksum != status.crc)
        fail(prefix + "its checksum is wrong");
    totalBytes_ += content.size();
    return content;
}

void ZipReader::Closer::operator()(zip* archive) const {
    zip_discard(archive);
}

void ZipReader::fail(std::string const& reason, ExitStatus status) const {
    throw Failure(status, file_.path() + ": " + reason);
}

/// Makes sure that the ZIP library sees the member as the directory shows it, and can read it.
void ZipReader::requireMember(ZipEntry const& entry) const {
    auto const prefix = "member " + printable(entry.name) + ": ";
    zip_stat_t status;
    zip_stat_init(&status);
    auto const* const name = zip_get_name(archive_.get(), entry.index, ZIP_FL_ENC_RAW);
    if (name == nullptr || zip_stat_index(archive_.get(), entry.index, 0, &status) != 0)
        fail(prefix + zip_strerror(archive_.get()));
    if (entry.name.find('\0') == std::string::npos && name != entry.name)
        fail(prefix + "its entry in the directory is ambiguous");
    if (status.size != entry.size || status.comp_size != entry.compressedSize)
        fail(prefix + "its entry in the directory is ambiguous");
    if (status.encryption_method != ZIP_EM_NONE)
        fail(prefix + "it is encrypted");
}

void ZipReader::requireWithinLimits(ZipEntry const& member) const {
    auto const prefix = "member " + printable(member.name) + ": ";
    if (member.size > limits_.partBytes)
        fail(fmt::format("{}it is larger than the limit of {} bytes (--max-part-size)", prefix, limits_.partBytes),
             ExitStatus::LimitExceeded);
    if (totalBytes_ + member.size > limits_.totalBytes)
        fail(fmt::format("{}with it the content is larger than the limit of {} bytes (--max-size)", prefix,
                         limits_.totalBytes),
             ExitStatus::LimitExceeded);
    if (member.size > RatioCountsFrom &&
        member.size / std::max<std::uint64_t>(member.compressedSize, 1) >= limits_.ratio)
        fail(fmt::format("{}it inflates to {} times its size or more, the limit (--max-ratio)", prefix, limits_.ratio),
             ExitStatus::LimitExceeded);
}

} // namespace opctext
