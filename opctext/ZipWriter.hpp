#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

struct zip;

namespace opc::interfaces {
class IPhysicalPart;
}

namespace opctext {

/// Writes the parts of a package as a ZIP file that is the same for the same parts, whatever the clock, the time zone
/// or the locale. Throws `Failure`.
class ZipWriter {
public:
    /// A ZIP file at a path in the system's form; what stands there is replaced.
    explicit ZipWriter(std::string path);
    ZipWriter(ZipWriter const&) = delete;
    ZipWriter& operator=(ZipWriter const&) = delete;
    ~ZipWriter();

    /// At most 65,535 bytes.
    void setComment(std::string const& comment);

    /// Adds a part of `size` bytes; it is read when `finish` is called and has to live until then.
    void add(std::string const& memberName, opc::interfaces::IPhysicalPart& part, std::uint64_t size, bool isText);

    /// Writes the file.
    void finish();

private:
    struct Member;

    void appendComment() const;
    [[noreturn]] void fail() const;

    std::string path_;
    zip* archive_; // null once it was finished or given up
    std::vector<std::unique_ptr<Member>> members_;
    std::string refusedComment_; // by the ZIP library; it is added to the file that this has written
};

} // namespace opctext
