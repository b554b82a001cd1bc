// Any sequence of changes to a package against a plain model of it. An input is a package text, a line "%%", and
// commands, a line each; without that line the package is a new one. The commands:
//
//     +/name      creates a text part         *            commits and opens again for writing
//     */name      creates a binary part       !            discards the changes and opens again
//     =content    writes to the part          ?            opens for reading, or for writing again
//     -/name      deletes a part              #            closes the streams of all parts
//     </name      reads a part                @            goes on with a new object
//     >/name      names the part to write     ^header      sets the header text, "|" for a line break
//
// A line that begins otherwise is written to the part after an LF.

#include <algorithm>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <fuzz/support/InputReader.hpp>
#include <fuzz/support/PlainPackage.hpp>
#include <fuzz/support/ScratchFolder.hpp>
#include <fuzz/support/plainText.hpp>
#include <fuzz/support/readPart.hpp>
#include <fuzz/support/require.hpp>
#include <opccore/IPhysicalOutputStream.hpp>
#include <textpackage/FilePart.hpp>
#include <textpackage/FilePartInfo.hpp>
#include <textpackage/TextFilePhysicalPackage.hpp>

namespace {

using opc::interfaces::OpenMode;
using opc::textpackage::FilePart;
using opc::textpackage::FilePartInfo;
using opc::textpackage::TextFilePhysicalPackage;

constexpr char FileName[] = "package.txt";
constexpr std::size_t MostCommands = 200; // more would only take longer

/// A part of the open package.
struct ModelPart {
    bool isBinary = false;
    std::optional<fuzz::PlainPart> stored; ///< what the file holds; none for a created part
    std::optional<std::string> written;    ///< what was written since
    bool isChanged = false;                ///< it can't be deleted before the package is closed
    bool isStreamOpen = false;             ///< what is written next is added
    bool hidesAStoredOne = false;          ///< a stored part of the same name is still there
};

/// A name that a package file can hold: it begins with "/" and has no character that ends a name.
std::u16string nameIn(std::string_view argument) {
    auto name = fuzz::utf16Of(argument).value_or(u"/ill-formed");
    for (auto& unit : name)
        unit = unit == u' ' || unit == u'\r' || unit == u'\0' ? u'_' : unit;
    return name.empty() || name.front() != u'/' ? u'/' + name : name;
}

class Session {
public:
    Session() : package_(newPackage()) {}

    /// Opens the file if it is a package that has to be opened; false where the library refuses it or can't keep its
    /// names.
    bool openFirst() {
        auto const text = scratch_.read(FileName);
        if (!text) {
            open(OpenMode::Create);
            return true;
        }
        auto const fault = fuzz::faultOfReading([&] { package_->open(OpenMode::ReadWrite); });
        package_ = newPackage();
        auto const plain = fuzz::readPlainly(*text);
        auto const endsInCarriageReturn = [](auto const& part) {
            return !part.name.empty() && part.name.back() == u'\r';
        };
        // Such a name comes from a line that ends in CR CR LF, is none that the format knows, and can't be written.
        if (!fault.empty() || std::any_of(plain.parts.begin(), plain.parts.end(), endsInCarriageReturn))
            return false;
        disk_ = plain;
        open(OpenMode::ReadWrite);
        return true;
    }

    void take(std::string_view command) {
        auto const argument = command.substr(std::min<std::size_t>(command.size(), 1));
        auto const kind = command.empty() ? '\0' : command.front();
        if (kind == '+' || (kind == '*' && !argument.empty()))
            create(nameIn(argument), kind == '*');
        else if (kind == '>')
            current_ = nameIn(argument);
        else if (kind == '=')
            write(std::string(argument));
        else if (kind == '-')
            remove(nameIn(argument));
        else if (kind == '<')
            read(nameIn(argument));
        else if (kind == '^')
            setHeader(argument);
        else if (kind == '*')
            reopen(false, OpenMode::ReadWrite);
        else if (kind == '!')
            reopen(true, OpenMode::ReadWrite);
        else if (kind == '?')
            reopen(true, mode_ == OpenMode::Read ? OpenMode::ReadWrite : OpenMode::Read);
        else if (kind == '#')
            closeStreams();
        else if (kind == '@')
            useNewObject();
        else
            write('\n' + std::string(command));
    }

    void finish() {
        close(false);
        useNewObject();
        close(true);
    }

private:
    std::unique_ptr<TextFilePhysicalPackage> newPackage() const {
        return std::make_unique<TextFilePhysicalPackage>(scratch_.corePath(FileName));
    }

    void open(OpenMode mode) {
        package_->open(mode);
        mode_ = mode;
        isModified_ = mode == OpenMode::Create;
        parts_.clear();
        if (mode == OpenMode::Create) {
            parts_[fuzz::ContentTypesName].isChanged = true;
            return;
        }
        for (auto const& [name, part] : disk_->last()) {
            parts_[name].isBinary = part.isBase64;
            parts_[name].stored = part;
        }
        for (auto const& line : disk_->headerLines)
            header_ += (header_.empty() ? "" : "\n") + line;
    }

    void close(bool discards) {
        bool const commits = package_->isOpen() && isModified_ && !discards && mode_ != OpenMode::Read;
        auto const before = scratch_.read(FileName);
        auto const fault = failureOfEither([&] { package_->close(discards); });
        fuzz::require(!package_->isOpen(), "a closed package is not open");
        if (!commits || !fault.empty())
            fuzz::require(scratch_.read(FileName) == before, "what is not committed leaves the file as it was");
        if (!commits) {
            fuzz::require(fault.empty(), "closing without a commit does not fail: " + fault);
        } else if (fault.empty()) {
            requireCommitted();
        } else {
            bool const isHeaderTooLong = std::count(header_.begin(), header_.end(), '\n') > 20;
            fuzz::require(isHeaderTooLong || !fuzz::areSurelyUsable(namesOfFiles()), "the commit fails: " + fault);
        }
        fuzz::require(before.has_value() || !commits || !fault.empty() || disk_.has_value(), "there is a file");
        parts_.clear();
        scratch_.requireNothingLeft(scratch_.read(FileName) ? 1 : 0);
    }

    void reopen(bool discards, OpenMode mode) {
        close(discards);
        if (!disk_)
            mode = OpenMode::Create;
        open(mode);
    }

    void useNewObject() {
        auto const before = scratch_.read(FileName);
        package_ = newPackage(); // the one before goes without a commit
        fuzz::require(scratch_.read(FileName) == before, "a package that is destroyed leaves the file as it was");
        header_.clear();
        open(disk_ ? OpenMode::ReadWrite : OpenMode::Create);
    }

    void setHeader(std::string_view argument) {
        std::string header(argument);
        std::replace(header.begin(), header.end(), '|', '\n');
        auto const text = fuzz::utf16Of(header);
        if (!text)
            return;
        bool const isFit = header.find("__ZKOPC_PACKAGE_BEGIN__") == std::string::npos &&
                           header.compare(0, 2, "PK") != 0 && std::count(header.begin(), header.end(), '\n') <= 20;
        auto const fault = fuzz::failureOf<opc::Exception>([&] { package_->setTextFileHeader(*text); });
        fuzz::require(fault.empty() == isFit, "a header text is taken or refused: " + fault);
        if (isFit)
            header_ = header;
    }

    void create(std::u16string const& name, bool isBinary) {
        current_ = name;
        auto const entry = parts_.find(name);
        bool const isThere = entry != parts_.end();
        if (name == fuzz::ContentTypesName && isThere && !entry->second.isChanged)
            return; // the stored one would still count as the content types part
        ModelPart part;
        part.isBinary = isBinary;
        part.isChanged = true;
        part.hidesAStoredOne = isThere && (!entry->second.isChanged || entry->second.hidesAStoredOne);
        package_->createPart(name, isBinary ? u"image/png" : u"text/xml", FilePartInfo());
        parts_[name] = part;
        isModified_ = true;
    }

    void write(std::string const& content) {
        auto const entry = parts_.find(current_);
        if (entry == parts_.end())
            return;
        auto& part = entry->second;
        auto const whole = (part.isStreamOpen ? *part.written : "") + content;
        bool const isForbidden = content.find(fuzz::ForbiddenText) != std::string::npos;
        if (!isForbidden && whole.find(fuzz::ForbiddenText) != std::string::npos)
            return; // that it comes in two blocks is not noticed
        opc::interfaces::IPhysicalOutputStream* stream = nullptr;
        auto const fault = fuzz::failureOf<opc::Exception>([&] { stream = partNamed(current_).getOutputStream(); });
        fuzz::require(fault.empty() || !fuzz::areSurelyUsable(namesOfFiles()), "a part can be written: " + fault);
        if (mode_ == OpenMode::ReadWrite) { // even where the part's name is refused then
            part.isChanged = true;
            part.hidesAStoredOne = false;
        }
        if (!fault.empty())
            return;
        isModified_ = true;
        part.written = part.isStreamOpen ? *part.written : "";
        part.isStreamOpen = true;
        auto const refusal = fuzz::failureOf<opc::Exception>(
            [&] { stream->write(content.data(), static_cast<std::int64_t>(content.size())); });
        fuzz::require(refusal.empty() != isForbidden, "a block is taken or refused: " + refusal);
        if (!isForbidden)
            part.written = whole;
    }

    void remove(std::u16string const& name) {
        auto const entry = parts_.find(name);
        bool const isStored = entry != parts_.end() && (!entry->second.isChanged || entry->second.hidesAStoredOne);
        if (isStored && name == fuzz::ContentTypesName && !entry->second.hidesAStoredOne)
            return; // what is committed then can't be opened
        auto const fault = fuzz::failureOf<opc::Exception>([&] { package_->deletePart(name); });
        fuzz::require(fault.empty() == isStored || !fuzz::isSurelyUsable(name), "a part is deleted: " + fault);
        if (!isStored)
            return;
        isModified_ = true;
        if (entry->second.hidesAStoredOne)
            entry->second.hidesAStoredOne = false;
        else
            parts_.erase(entry);
    }

    /// What was written is not read back before the package was closed; a part that was not written is as it stands
    /// in the file.
    void read(std::u16string const& name) {
        auto const entry = parts_.find(name);
        if (entry == parts_.end())
            return;
        auto& part = entry->second;
        auto const read = fuzz::readPart(partNamed(name));
        if (part.stored) {
            bool const mayBeRefused =
                part.stored->isBase64 && (part.stored->holdsForbiddenText() || !fuzz::areSurelyUsable(namesOfFiles()));
            fuzz::require(read.content == part.stored->content() || (!read.content && mayBeRefused),
                          "a stored part gives its content: " + read.fault);
        }
        if (part.stored && part.isBinary && mode_ == OpenMode::ReadWrite)
            part.isChanged = true;
    }

    void closeStreams() {
        package_->closeParts();
        for (auto& [name, part] : parts_)
            part.isStreamOpen = false;
    }

    FilePart& partNamed(std::u16string const& name) {
        if (name == fuzz::ContentTypesName)
            return *package_->getContentTypesPart();
        auto const parts = static_cast<opc::interfaces::IPhysicalPackage&>(*package_).getParts();
        auto const part = std::find_if(parts.begin(), parts.end(), [&](auto* p) { return p->getName() == name; });
        fuzz::require(part != parts.end(), "the package has the part");
        return dynamic_cast<FilePart&>(**part);
    }

    /// The names of all that may have had a file since the package was opened.
    std::vector<std::u16string> namesOfFiles() const {
        std::vector<std::u16string> names;
        for (auto const& [name, part] : parts_)
            names.push_back(name);
        if (disk_ && mode_ != OpenMode::Create) {
            for (auto const& [name, part] : disk_->last())
                names.push_back(name);
        }
        return names;
    }

    /// What the part must be in the file.
    static fuzz::PlainPart committed(std::u16string const& name, ModelPart const& part) {
        fuzz::PlainPart result{name, part.isBinary, part.written.value_or("")};
        if (part.isBinary)
            result.stored = fuzz::base64LinesOf(result.stored);
        if (part.stored && !part.written)
            result.stored = part.stored->stored;
        if (!result.stored.empty() && result.stored.back() == '\r')
            result.stored.pop_back(); // it is taken for a part of the line break behind it
        return result;
    }

    /// Makes what the file says now the new truth, if it is what it must be.
    void requireCommitted() {
        auto const text = scratch_.read(FileName);
        fuzz::require(text.has_value(), "a commit leaves a file");
        auto const disk = fuzz::readPlainly(*text);
        fuzz::require(disk.fault.empty(), "what was committed can be read: " + disk.fault);
        std::string header;
        for (auto const& line : disk.headerLines)
            header += line + '\n';
        fuzz::require(header == header_ + (header_.empty() ? "" : "\n"), "the header is committed");

        fuzz::require(disk.parts.size() == parts_.size(), "as many parts as expected are committed");
        auto stored = std::map<std::u16string, fuzz::PlainPart>();
        for (auto const& part : disk.parts)
            stored[part.name] = part;
        for (auto const& [name, part] : parts_) {
            auto const expected = committed(name, part);
            auto const entry = stored.find(name);
            fuzz::require(entry != stored.end() && entry->second.isBase64 == part.isBinary, "each part is committed");
            fuzz::require(entry->second.content() == expected.content(), "each part is committed as it was written");
            if (!part.isBinary || (part.stored && !part.isChanged && !part.written))
                fuzz::require(entry->second.stored == expected.stored, "an untouched part keeps its bytes");
        }
        disk_ = disk;
    }

    /// What an action fails with, an error of a package or of its Base64.
    template <class Action>
    static std::string failureOfEither(Action const& action) {
        try {
            return fuzz::failureOf<opc::Exception>(action);
        } catch (foundation::crypto::utils::Exception const& failure) {
            return failure.what();
        }
    }

    fuzz::ScratchFolder const& scratch_ = fuzz::ScratchFolder::get();
    std::unique_ptr<TextFilePhysicalPackage> package_;
    std::optional<fuzz::PlainPackage> disk_; ///< what the file holds
    OpenMode mode_ = OpenMode::Create;
    bool isModified_ = false;
    std::string header_; ///< of the object
    std::map<std::u16string, ModelPart> parts_;
    std::u16string current_ = fuzz::ContentTypesName;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    auto const input = fuzz::asText(data, size);
    auto const [text, commands] = fuzz::splitInTwo(input);
    auto const& scratch = fuzz::ScratchFolder::get();
    scratch.remove(FileName);
    if (!text.empty())
        scratch.write(FileName, text);
    {
        Session session;
        if (session.openFirst()) {
            auto lines = fuzz::linesOf(commands);
            lines.resize(std::min(lines.size(), MostCommands));
            for (auto const command : lines)
                session.take(command);
            session.finish();
        }
    }
    scratch.remove(FileName);
    scratch.requireNothingLeft(0);
    return 0;
}
