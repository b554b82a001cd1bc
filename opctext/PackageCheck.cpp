#include <opctext/PackageCheck.hpp>

#include <algorithm>
#include <map>
#include <string_view>

#include <fmt/format.h>
#include <utf8.h>

#include <opccore/Base64.hpp>
#include <opctext/Messages.hpp>
#include <opctext/PackageFile.hpp>
#include <opctext/PackageListing.hpp>
#include <opctext/contentForm.hpp>
#include <opctext/partNames.hpp>
#include <textpackage/TextPackageHelpers.hpp>

namespace opctext {

namespace {

namespace Format = opc::textpackage::TextPackageHelpers;

constexpr std::size_t MostHeaderLines = 21;
constexpr std::size_t Base64LineLength = 76;

bool beginsWith(std::string_view line, std::string_view beginning) {
    return line.substr(0, beginning.size()) == beginning;
}

/// Where the writer puts a part of this (caseless) name: the group, then the name within it.
std::pair<int, std::string> writtenPlace(std::string const& name) {
    if (name == caseless(ContentTypesName))
        return {0, ""};
    if (name == "/_rels/.rels")
        return {1, ""};
    return {beginsWith(name, "/metadata/") ? 2 : 3, name};
}

/// Looks at a package file line by line. Unlike the library's scanner it goes on after what is wrong, and looks at
/// what the scanner passes over.
class PackageChecker {
public:
    std::vector<Finding> run(std::istream& stream) {
        std::string line;
        while (where_ != Where::GivenUp && std::getline(stream, line)) {
            ++lineNumber_;
            takeLine(line);
        }
        finish();
        std::stable_sort(findings_.begin(), findings_.end(),
                         [](Finding const& a, Finding const& b) { return a.line < b.line; });
        return std::move(findings_);
    }

private:
    enum class Where { InHeader, BeforeFirstPart, InPart, AfterEnd, GivenUp };

    struct Part {
        std::string name;
        bool isBinary = false;
        std::uint64_t lines = 0;
        std::size_t lastLineLength = 0;
        bool isReported = false; // one finding about the content is enough
    };

    void takeLine(std::string_view line) {
        checkForConflictMarker(line);
        bool const hasCarriageReturn = !line.empty() && line.back() == '\r';
        if (where_ == Where::InHeader)
            return takeHeaderLine(line, hasCarriageReturn);
        line.remove_suffix(hasCarriageReturn ? 1 : 0);
        if (where_ == Where::AfterEnd)
            return takeLineAfterEnd();
        if (line == Format::getPackageEnd()) {
            endPart();
            noteMarkerLine(hasCarriageReturn);
            where_ = Where::AfterEnd;
        } else if (beginsWith(line, Format::getPartSeparator())) {
            endPart();
            noteMarkerLine(hasCarriageReturn);
            beginPart(std::string(line.substr(Format::getPartSeparator().size())));
        } else if (where_ == Where::InPart) {
            takeContentLine(line, hasCarriageReturn);
        } else if (!line.empty()) {
            error("this line stands before the first part-begin line; a package with it can't be opened");
            where_ = Where::GivenUp;
        }
    }

    void checkForConflictMarker(std::string_view line) {
        bool const begins = beginsWith(line, "<<<<<<< ");
        bool const ends = beginsWith(line, ">>>>>>> ");
        bool const isInside = inConflict_ && (beginsWith(line, "=======") || beginsWith(line, "||||||| "));
        if (begins || ends || isInside)
            error("a conflict marker that a merge left behind");
        inConflict_ = (inConflict_ || begins) && !ends;
    }

    void takeHeaderLine(std::string_view line, bool hasCarriageReturn) {
        if (beginsWith(line, Format::getPackageBegin())) {
            noteMarkerLine(hasCarriageReturn);
            where_ = Where::BeforeFirstPart;
        } else if (lineNumber_ > MostHeaderLines) {
            error(fmt::format("no package-begin line among the first {} lines", MostHeaderLines + 1));
            where_ = Where::GivenUp;
        } else if (!utf8::is_valid(line.begin(), line.end())) {
            error("the header is not in UTF-8");
        }
    }

    void takeLineAfterEnd() {
        if (!hasLinesAfterEnd_)
            error("there are lines after the package-end line, which nothing reads and an edit would lose", true);
        hasLinesAfterEnd_ = true;
    }

    void beginPart(std::string const& rest) {
        where_ = Where::InPart;
        part_ = {};
        if (rest.empty())
            return error("a part begins here, but its name is missing", true);

        auto const space = rest.find(' ', 1);
        part_.name = rest.substr(1, space - 1);
        auto const flag = space == std::string::npos ? "" : rest.substr(space + 1);
        part_.isBinary = flag == "BASE64";
        if (space != std::string::npos && !part_.isBinary)
            error(fmt::format("the part name ends at its first space, and what follows, \"{}\", is not BASE64",
                              printable(flag)),
                  true);
        auto const fault = findNameFault(part_.name);
        if (!fault.empty())
            error("part " + printable(part_.name) + ": " + fault, true);
        checkForRepetition();
        checkOrder();
    }

    void checkForRepetition() {
        auto const [entry, isNew] = parts_.try_emplace(caseless(part_.name), FirstUse{part_.name, lineNumber_});
        if (isNew)
            return;
        bool const isExact = entry->second.name == part_.name;
        error(fmt::format("part {} was there before, at line {}{}", printable(part_.name), entry->second.line,
                          isExact ? "" : ", in other letter case"),
              isExact);
    }

    void checkOrder() {
        auto place = writtenPlace(caseless(part_.name));
        if (place < lastPlace_)
            warning(fmt::format("part {} stands behind parts that a writer puts after it; a reader that stops early "
                                "may miss it",
                                printable(part_.name)));
        else
            lastPlace_ = std::move(place);
    }

    void takeContentLine(std::string_view line, bool hasCarriageReturn) {
        if (part_.isBinary)
            takeBase64Line(line, hasCarriageReturn);
        else
            takeTextLine(line);
        ++part_.lines;
        part_.lastLineLength = line.size();
    }

    void takeBase64Line(std::string_view line, bool hasCarriageReturn) {
        if (hasCarriageReturn && !hasBase64WithCarriageReturn_) {
            warning("Base64 lines end in CR LF");
            hasBase64WithCarriageReturn_ = true;
        }
        if (part_.isReported)
            return;
        try {
            auto const bytes = foundation::crypto::utils::base64Decode(std::string(line));
            auto const fault = findContentFault({reinterpret_cast<char const*>(bytes.data()), bytes.size()});
            if (!fault.empty())
                reportContent(Severity::Error, "no package can hand out this Base64 line: it hides a marker");
        } catch (foundation::crypto::utils::Exception const& failure) {
            return reportContent(Severity::Error, failure.what());
        }
        bool const isCutWrong = line.size() > Base64LineLength ||
                                (part_.lines > 0 && part_.lastLineLength != Base64LineLength) ||
                                (part_.lines > 0 && line.empty());
        if (isCutWrong)
            reportContent(Severity::Warning, "the Base64 of this part is not cut into lines of 76 characters");
    }

    void takeTextLine(std::string_view line) {
        if (beginsWith(line, ForbiddenText))
            warning("this line begins like a marker line, but is none");
        if (!part_.isReported && !utf8::is_valid(line.begin(), line.end()))
            reportContent(Severity::Warning, "the text of part " + printable(part_.name) + " is not in UTF-8");
    }

    void endPart() {
        if (where_ == Where::InPart)
            hasContentTypes_ = hasContentTypes_ || part_.name == ContentTypesName;
    }

    void noteMarkerLine(bool hasCarriageReturn) {
        if (hasCarriageReturn && !hasMarkerWithCarriageReturn_)
            warning("marker lines end in CR LF");
        hasMarkerWithCarriageReturn_ = hasMarkerWithCarriageReturn_ || hasCarriageReturn;
    }

    void finish() {
        checkForFolders();
        if (where_ == Where::GivenUp)
            return;
        if (where_ == Where::InHeader)
            return add(Severity::Error, 0, "no package-begin line", false);
        if (where_ != Where::AfterEnd)
            error(where_ == Where::InPart ? "the package-end line is missing: part " + printable(part_.name) +
                                                " is cut off and counts as missing"
                                          : std::string("the package-end line is missing"),
                  true);
        if (!hasContentTypes_)
            add(Severity::Error, 0, missingContentTypes(), false);
    }

    std::string missingContentTypes() const {
        auto const other = parts_.find(caseless(ContentTypesName));
        auto message = fmt::format("no part {}", ContentTypesName);
        if (other != parts_.end() && other->second.name != ContentTypesName)
            message += fmt::format("; {} differs from it in letter case", printable(other->second.name));
        return message;
    }

    void checkForFolders() {
        for (auto const& [folder, folderUse] : parts_) {
            if (folder.empty())
                continue; // the name that is missing is no folder of all others
            auto const beginning = folder + '/';
            for (auto entry = parts_.lower_bound(beginning); entry != parts_.end(); ++entry) {
                auto const& [name, use] = *entry;
                if (!beginsWith(name, beginning))
                    break;
                add(Severity::Error, use.line,
                    fmt::format("part {} lies in a folder that is a part itself, {}, at line {}; no file system can "
                                "hold both",
                                printable(use.name), printable(folderUse.name), folderUse.line),
                    true);
            }
        }
    }

    void reportContent(Severity severity, std::string const& message) {
        part_.isReported = true;
        add(severity, lineNumber_, message, false);
    }

    void error(std::string const& message, bool isLostByEditing = false) {
        add(Severity::Error, lineNumber_, message, isLostByEditing);
    }

    void warning(std::string const& message) { add(Severity::Warning, lineNumber_, message, false); }

    void add(Severity severity, std::uint64_t line, std::string const& message, bool isLostByEditing) {
        findings_.push_back({line, severity, message, isLostByEditing});
    }

    struct FirstUse {
        std::string name;
        std::uint64_t line;
    };

    Where where_ = Where::InHeader;
    std::uint64_t lineNumber_ = 0;
    Part part_;
    std::map<std::string, FirstUse> parts_; // by caseless name
    std::pair<int, std::string> lastPlace_; // that parts in the written order have come to
    bool inConflict_ = false;
    bool hasContentTypes_ = false;
    bool hasLinesAfterEnd_ = false;
    bool hasMarkerWithCarriageReturn_ = false;
    bool hasBase64WithCarriageReturn_ = false;
    std::vector<Finding> findings_;
};

} // namespace

std::string Finding::asText(std::string const& path) const {
    auto const place = line == 0 ? "" : fmt::format("{}:", line);
    return fmt::format("{}:{} {}: {}", path, place, severity == Severity::Error ? "error" : "warning",
                       printable(message));
}

std::vector<Finding> checkPackage(PackageFile const& file) {
    std::vector<Finding> findings;
    file.scan([&](std::istream& stream) { findings = PackageChecker().run(stream); });
    return findings;
}

} // namespace opctext
