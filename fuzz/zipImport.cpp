// ZIP files of any kind into text packages and back, through the code of `opctext pack` and `unpack`. The first byte of
// an input says what it is: the bytes of a ZIP file (an even number), or the description of one, whose checksums and
// sizes are right unless a lie is asked for.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <fuzz/support/InputReader.hpp>
#include <fuzz/support/PlainPackage.hpp>
#include <fuzz/support/ScratchFolder.hpp>
#include <fuzz/support/require.hpp>
#include <opctext/conversion.hpp>
#include <tests/support/ZipFiles.hpp>

namespace {

using opctext::ExitStatus;
using testsupport::ZipLayout;
using testsupport::ZipMember;

using Contents = std::map<std::string, std::string>;

/// Keeps what is written to standard error as long as it lives. What sanitizers say does not come this way.
class CaughtMessages {
public:
    CaughtMessages() : earlier_(stderr), stream_(::open_memstream(&text_, &size_)) { stderr = stream_; }
    CaughtMessages(CaughtMessages const&) = delete;
    CaughtMessages& operator=(CaughtMessages const&) = delete;
    ~CaughtMessages() {
        stderr = earlier_;
        std::fclose(stream_);
        std::free(text_);
    }

    std::string text() {
        std::fflush(stream_);
        return {text_, size_};
    }

private:
    std::FILE* earlier_;
    char* text_ = nullptr;
    std::size_t size_ = 0;
    std::FILE* stream_;
};

/// A ZIP file to import.
struct Import {
    bool force = false;
    std::string bytes;
    std::optional<Contents> contents; ///< where they are known beforehand
};

/// A value that replaces the truth, now and then.
template <class Value>
std::optional<Value> lie(fuzz::InputReader& input, unsigned kind, unsigned bit) {
    if ((kind >> bit & 1U) == 0)
        return {};
    auto const low = input.byte();
    return static_cast<Value>(low | input.byte() << 8);
}

std::string describedZip(fuzz::InputReader& input, std::optional<Contents>& contents) {
    ZipLayout layout;
    auto const kind = input.byte();
    layout.comment = input.text(input.byte());
    layout.is64Bit = (kind & 1U) != 0;
    layout.prefix = input.text((kind & 2U) != 0 ? input.byte() : 0U);
    layout.gap = input.text((kind & 4U) != 0 ? input.byte() : 0U);
    layout.count = lie<std::uint16_t>(input, kind, 4);
    layout.directoryOffset = lie<std::uint32_t>(input, kind, 5);
    layout.directorySize = lie<std::uint32_t>(input, kind, 6);
    bool isTrue = kind < 8;

    std::vector<ZipMember> members;
    while (!input.atEnd() && members.size() < 100) {
        auto const memberKind = input.byte();
        ZipMember member{input.text(input.byte()), input.sizedText()};
        if (memberKind % 8 == 1)
            member.name = "[Content_Types].xml";
        member.method = memberKind % 8 == 2 ? testsupport::Stored : testsupport::Deflated;
        if (memberKind >= 128) { // a liar
            auto const lies = input.byte();
            isTrue = false;
            member.flags = static_cast<std::uint16_t>((lies & 1U) != 0 ? input.byte() : 0U);
            if ((lies & 2U) != 0)
                member.localName = input.text(input.byte());
            if ((lies & 4U) != 0)
                member.extra = input.text(input.byte());
            if ((lies & 128U) != 0)
                member.data = input.sizedText();
            member.checksum = lie<std::uint32_t>(input, lies, 3);
            member.compressedSize = lie<std::uint32_t>(input, lies, 4);
            member.size = lie<std::uint32_t>(input, lies, 5);
            member.headerOffset = lie<std::uint32_t>(input, lies, 6);
        }
        members.push_back(member);
    }
    if (isTrue) {
        contents.emplace();
        for (auto const& member : members)
            (*contents)[member.name] = member.content;
    }
    return testsupport::zipBytes(members, layout);
}

Import readImport(std::string_view bytes) {
    fuzz::InputReader input(bytes);
    auto const kind = input.byte();
    Import result;
    result.force = kind % 4 >= 2;
    if (kind % 2 == 0)
        result.bytes = input.rest();
    else
        result.bytes = describedZip(input, result.contents);
    return result;
}

/// Converts a file; whatever goes wrong, there is a message and nothing of the output.
template <class Convert>
ExitStatus convert(Convert convertFiles, char const* from, char const* to, bool force) {
    auto const& scratch = fuzz::ScratchFolder::get();
    opctext::ConversionOptions options;
    options.output = scratch.path(to);
    options.force = force;
    options.limits.parts = 1000;
    options.limits.partBytes = std::uint64_t{4} << 20;
    options.limits.totalBytes = std::uint64_t{16} << 20;
    ExitStatus status = ExitStatus::Fine;
    std::string messages;
    {
        CaughtMessages caught;
        status = convertFiles({scratch.path(from)}, options);
        messages = caught.text();
    }
    fuzz::require(scratch.read(to).has_value() == (status == ExitStatus::Fine), "there is an output if all went well");
    fuzz::require(status == ExitStatus::Fine || !messages.empty(), "a failure says what it is");
    bool const isItsFault =
        status != ExitStatus::InputOutput || messages.find("File name too long") != std::string::npos;
    fuzz::require(isItsFault, "the fault is in the file, and what was written verifies: " + messages);
    return status;
}

/// Without what only names a folder or lies in the trash, which packing leaves out.
Contents withoutWhatIsLeftOut(Contents contents) {
    for (auto entry = contents.begin(); entry != contents.end();) {
        auto const& [name, content] = *entry;
        bool const isFolder = !name.empty() && name.back() == '/' && content.empty();
        bool const isLeftOut = isFolder || name.rfind("[trash]", 0) == 0;
        entry = isLeftOut ? contents.erase(entry) : std::next(entry);
    }
    return contents;
}

void requireSameContents(Import const& import, std::string const& result) {
    auto const contents = testsupport::readZip(result).contents();
    if (import.contents)
        fuzz::require(contents == withoutWhatIsLeftOut(*import.contents), "every member comes back");
    constexpr std::string_view EndRecord = "PK\x05\x06";
    if (import.bytes.find(EndRecord) != import.bytes.rfind(EndRecord))
        return; // whose directory this reader might mistake
    try {
        auto const expected = withoutWhatIsLeftOut(testsupport::readZip(import.bytes).contents());
        fuzz::require(contents == expected, "every member comes back as another reader sees it");
    } catch (std::runtime_error const&) {
        // Nothing that this reader can read.
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    auto const import = readImport(fuzz::asText(data, size));
    auto const& scratch = fuzz::ScratchFolder::get();
    for (auto const* const name : {"package.zip", "package.txt", "again.zip", "again.txt"})
        scratch.remove(name);
    scratch.write("package.zip", import.bytes);

    if (convert(opctext::packFiles, "package.zip", "package.txt", import.force) == ExitStatus::Fine) {
        auto const unpacked = convert(opctext::unpackFiles, "package.txt", "again.zip", false);
        fuzz::require(unpacked == ExitStatus::Fine, "what was packed can be unpacked");
        requireSameContents(import, scratch.read("again.zip").value_or(""));
        auto const packed = convert(opctext::packFiles, "again.zip", "again.txt", import.force);
        fuzz::require(packed == ExitStatus::Fine, "what was unpacked can be packed");
        fuzz::require(scratch.read("again.txt") == scratch.read("package.txt"), "packing it again gives the same text");
        for (auto const* const name : {"package.txt", "again.zip", "again.txt"})
            scratch.remove(name);
    }
    fuzz::require(scratch.read("package.zip") == import.bytes, "the input stays as it was");
    scratch.requireNothingLeft(1);
    return 0;
}
