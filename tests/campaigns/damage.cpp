// Damages small packages in every way that the name of each function below says, and compares what the package and the
// light reader make of each damaged file with a model of the format. Started by damage.py.
//
//     campaign_damage FOLDER SAMPLE [N SEED]     damages a sample; N: checks one in N, chosen by the seed
//     campaign_damage FOLDER --check FILE        checks one file
//     campaign_damage --samples                  prints the names of the samples
//
// FOLDER is for files, and empty. Where something is wrong, FOLDER/package.txt is the damaged file.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <map>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include <opccore/Base64.hpp>
#include <opccore/Exception.hpp>
#include <opccore/IPhysicalInputStream.hpp>
#include <opccore/IPhysicalOutputStream.hpp>
#include <opccore/IPhysicalPart.hpp>
#include <opccore/OpenMode.hpp>
#include <opccore/StringConversion.hpp>
#include <tests/campaigns/DamageSamples.hpp>
#include <tests/campaigns/FormatModel.hpp>
#include <tests/campaigns/Scenario.hpp>
#include <textpackage/FilePart.hpp>
#include <textpackage/FilePartInfo.hpp>
#include <textpackage/MemoryPart.hpp>
#include <textpackage/TextFilePhysicalPackage.hpp>
#include <textpackage/TextPackageLightweightReader.hpp>

namespace campaigns {

namespace {

namespace fs = std::filesystem;

using opc::interfaces::OpenMode;
using opc::textpackage::TextFilePhysicalPackage;
using opc::textpackage::TextPackageLightweightReader;

constexpr char AddedPart[] = "/zz/campaign.txt";
constexpr char AddedContent[] = "added";

/// Text in one line that people can read.
std::string shown(std::string const& text) {
    std::string result;
    for (char const c : text) {
        if (c >= ' ' && c < '\x7F') {
            result += c;
        } else {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\x%02X", static_cast<unsigned>(static_cast<unsigned char>(c)));
            result += escape;
        }
    }
    return "\"" + result + "\"";
}

std::string readFile(fs::path const& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void writeFile(fs::path const& path, std::string const& content) {
    std::ofstream(path, std::ios::binary) << content;
}

std::u16string corePath(fs::path const& path) {
    return opc::toString(path.native(), true);
}

/// The message of what an action throws, empty where it throws nothing. Any other type than the documented ones is a
/// violation.
std::string errorOf(std::function<void()> const& action) {
    try {
        action();
        return "";
    } catch (opc::Exception const& failure) {
        return failure.what();
    } catch (foundation::crypto::utils::Exception const& failure) {
        return failure.what();
    } catch (std::out_of_range const& /*failure*/) {
        return "std::out_of_range";
    } catch (Violation const&) {
        throw;
    } catch (std::exception const& failure) {
        throw Violation(std::string("an exception that is not documented: ") + failure.what());
    }
}

bool beginsWithOneOf(std::string const& message, std::vector<std::string> const& beginnings) {
    for (auto const& beginning : beginnings) {
        if (message.compare(0, beginning.size(), beginning) == 0)
            return true;
    }
    return false;
}

void requireError(std::string const& what, std::string const& error, std::string const& expected) {
    bool const isRight = expected.empty() ? error.empty() : beginsWithOneOf(error, {expected});
    if (!isRight)
        throw Violation(what + ": expected error " + shown(expected) + ", got " + shown(error));
}

std::string readAll(opc::interfaces::IPhysicalPart& part) {
    auto& stream = *part.getInputStream();
    std::string bytes;
    char block[256];
    for (auto count = stream.read(block, sizeof block); count > 0; count = stream.read(block, sizeof block))
        bytes.append(block, static_cast<std::size_t>(count));
    return bytes;
}

struct Contents {
    std::string bytes;
    std::string error;
};

using ContentsByName = std::map<std::string, Contents>;

/// All that an open package gives, the content types part included.
template <class Package>
ContentsByName readParts(Package& package) {
    auto parts = package.getParts();
    parts.push_back(package.getContentTypesPart());
    ContentsByName result;
    for (auto* const part : parts) {
        Contents contents;
        contents.error = errorOf([&] { contents.bytes = readAll(*part); });
        auto const name = opc::detail::toUTF8String(part->getName(), true);
        if (!result.emplace(name, contents).second)
            throw Violation("two parts are called " + shown(name));
    }
    return result;
}

std::set<std::string> namesOf(ModelPackage const& model) {
    std::set<std::string> names;
    for (auto const& entry : model.parts)
        names.insert(entry.first);
    return names;
}

/// What a part whose file would have to stand where another has its file or folder may end with.
std::vector<std::string> const FolderErrors{
    "Could not create directory structure for part output stream:",
    "Failed to create or open file system output stream:", "Failed to open file system output stream",
    "Could not create folder", "Not a usable part name:"};

void compareParts(std::string const& reader, ContentsByName const& actual, ModelPackage const& model,
                  bool mayCollide = false) {
    for (auto const& [name, contents] : actual) {
        auto const expected = model.parts.find(name);
        auto const what = reader + ": part " + shown(name);
        if (expected == model.parts.end())
            throw Violation(what + " is not in the text");
        if (mayCollide && beginsWithOneOf(contents.error, FolderErrors))
            continue;
        requireError(what, contents.error, expected->second.error);
        if (contents.error.empty() && contents.bytes != expected->second.bytes)
            throw Violation(what + ": expected " + shown(expected->second.bytes) + ", got " + shown(contents.bytes));
    }
    if (actual.size() != model.parts.size())
        throw Violation(reader + ": " + std::to_string(actual.size()) + " parts instead of " +
                        std::to_string(model.parts.size()));
}

struct Figures {
    std::uint64_t files = 0;
    std::uint64_t opened = 0;
    std::uint64_t contents = 0; // compared, by whichever reader
    std::uint64_t commits = 0;
    std::uint64_t refusedCommits = 0; // for names that can't have files
};

/// Checks damaged texts, one after the other, in a folder of its own.
class Checker {
public:
    explicit Checker(fs::path const& folder) : package_(folder / "package.txt"), temporary_(folder / "tmp") {
        fs::create_directories(temporary_);
        ::setenv("TMPDIR", temporary_.c_str(), 1);
    }

    void check(std::string const& text) {
        ++figures_.files;
        writeFile(package_, text);
        auto const model = parse(text);
        auto const expected = expectedPackage(model, text.empty());

        auto const contents = checkPackage(expected);
        std::vector<std::string> names;
        for (auto const& part : model.parts)
            names.push_back(part.name);
        checkLightReader(model, {}, expected, contents);
        checkLightReader(model, names, expected, contents);
        if (!expected.error.empty())
            return;
        ++figures_.opened;
        checkCommit(text, expected, ReadFirst::No);
        checkCommit(text, expected, ReadFirst::Yes);
    }

    Figures const& figures() const { return figures_; }

private:
    enum class ReadFirst { No, Yes };

    ContentsByName checkPackage(ModelPackage const& expected) {
        ContentsByName contents;
        {
            TextFilePhysicalPackage package(corePath(package_));
            requireError("package", errorOf([&] { package.open(OpenMode::Read); }), expected.error);
            if (package.isOpen()) {
                contents = readParts(package);
                compareParts("package", contents, expected, !fitIntoOneFolder(namesOf(expected)));
            }
            requireError("package: close", errorOf([&] { package.close(false); }), "");
        }
        figures_.contents += contents.size();
        requireNothingLeft();
        return contents;
    }

    void checkLightReader(ModelText const& model, std::vector<std::string> const& requests,
                          ModelPackage const& expectedOfPackage, ContentsByName const& package) {
        auto const expected = expectedLightReader(model, requests);
        TextPackageLightweightReader reader(corePath(package_));
        for (auto const& name : requests)
            reader.addRequestedPart(opc::toString(name, true));
        auto const who = requests.empty() ? "light reader, asked for nothing" : "light reader, asked for all";
        requireError(who, errorOf([&] { reader.open(OpenMode::Read); }), expected.error);
        if (!reader.isOpen())
            return;
        auto const contents = readParts(reader);
        compareParts(who, contents, expected);
        figures_.contents += contents.size();
        for (auto const& [name, content] : contents) {
            auto const other = package.find(name);
            if (other != package.end() && expectedOfPackage.parts.at(name).begin == expected.parts.at(name).begin)
                requireAgreement(who + std::string(" and package: part ") + shown(name), content, other->second);
        }
    }

    /// Both give the same bytes, but for CR LF, which the light reader makes LF.
    static void requireAgreement(std::string const& what, Contents const& light, Contents const& package) {
        if (!light.error.empty() || !package.error.empty())
            return; // both were compared with the model
        auto const withoutCr = [](std::string bytes) {
            bytes.erase(std::remove(bytes.begin(), bytes.end(), '\r'), bytes.end());
            return bytes;
        };
        bool const hasCr = package.bytes.find('\r') != std::string::npos;
        if (hasCr ? withoutCr(light.bytes) != withoutCr(package.bytes) : light.bytes != package.bytes)
            throw Violation(what + ": " + shown(light.bytes) + " and " + shown(package.bytes));
    }

    /// A package with one part more than the damaged one reads back with all that it had, or is not committed.
    void checkCommit(std::string const& text, ModelPackage const& before, ReadFirst readFirst) {
        writeFile(package_, text);
        auto names = namesOf(before);
        names.insert(AddedPart);
        bool const canHaveFiles = std::all_of(names.begin(), names.end(), isFileName) && fitIntoOneFolder(names);

        auto const error = commit(readFirst);
        requireNothingLeft();
        auto const written = readFile(package_);
        if (!error.empty()) {
            if (written != text)
                throw Violation("commit failed, and the file has changed: " + error);
            if (canHaveFiles || !beginsWithOneOf(error, FolderErrors))
                throw Violation("commit failed: " + error);
            ++figures_.refusedCommits;
            return;
        }
        ++figures_.commits;
        auto const after = expectedPackage(parse(written), written.empty());
        requireSameContent(before, after);
        checkPackage(after);
    }

    std::string commit(ReadFirst readFirst) {
        return errorOf([&] {
            TextFilePhysicalPackage package(corePath(package_));
            package.open(OpenMode::ReadWrite);
            if (readFirst == ReadFirst::Yes)
                readParts(package);
            auto* const part =
                package.createPart(opc::toString(AddedPart, true), u"text/plain", opc::textpackage::FilePartInfo());
            part->getOutputStream()->write(AddedContent, sizeof AddedContent - 1);
            package.close(false);
        });
    }

    /// The same content, but for what the format can't keep.
    static void requireSameContent(ModelPackage const& before, ModelPackage const& after) {
        requireError("after the commit", after.error, "");
        if (after.header != before.header)
            throw Violation("after the commit: header " + shown(after.header) + " instead of " + shown(before.header));
        auto expected = before.parts;
        expected[AddedPart] = {0, AddedContent, ""};
        for (auto const& [name, content] : expected) {
            if (!name.empty() && name.back() == '\r')
                return; // the CR is taken for a part of the line break: the part takes the name, or place, of another
            auto const found = after.parts.find(name);
            if (found == after.parts.end())
                throw Violation("after the commit: no part " + shown(name));
            if (!isKept(content, found->second))
                throw Violation("after the commit: part " + shown(name) + ": " + shown(found->second.bytes) +
                                found->second.error + " instead of " + shown(content.bytes) + content.error);
        }
        if (after.parts.size() != expected.size())
            throw Violation("after the commit: more parts than before");
    }

    static bool isKept(ModelContent const& before, ModelContent const& after) {
        bool const isSame = after.error == before.error && after.bytes == before.bytes;
        // Taken for a part of the line break behind the content.
        bool const losesCr = after.error == before.error && after.bytes + '\r' == before.bytes;
        // Its beginning and its end were in different lines of Base64, and are in one now.
        bool const holdsMarker = before.bytes.find("__ZKOPC_PA") != std::string::npos &&
                                 after.error.find("The string __ZKOPC_PA is not allowed") == 0;
        return isSame || losesCr || holdsMarker;
    }

    void requireNothingLeft() const {
        if (!fs::is_empty(temporary_))
            throw Violation("something was left in the temporary area: " +
                            fs::directory_iterator(temporary_)->path().filename().native());
        for (auto const& entry : fs::directory_iterator(package_.parent_path())) {
            if (entry.path() != package_ && entry.path() != temporary_)
                throw Violation("something was left beside the package: " + entry.path().filename().native());
        }
    }

    fs::path package_;
    fs::path temporary_;
    Figures figures_;
};

/// Takes a damaged text and what was done to it.
using OnDamage = std::function<void(std::string const& damage, std::string const& text)>;

void changeEveryByte(std::string const& text, OnDamage const& onDamage) {
    constexpr char Replacements[] = {'\0', '\n', '\r', '_', 'B', ' ', '/', '\x80', '\xFF'};
    for (std::size_t at = 0; at < text.size(); ++at) {
        std::set<char> bytes(std::begin(Replacements), std::end(Replacements));
        for (unsigned bit = 0; bit < 8; ++bit)
            bytes.insert(static_cast<char>(static_cast<unsigned char>(text[at]) ^ (1U << bit)));
        bytes.erase(text[at]);
        auto damaged = text;
        for (char const byte : bytes) {
            damaged[at] = byte;
            onDamage("byte " + std::to_string(at) + " became " + shown(std::string(1, byte)), damaged);
        }
    }
}

void dropEveryByte(std::string const& text, OnDamage const& onDamage) {
    for (std::size_t at = 0; at < text.size(); ++at)
        onDamage("byte " + std::to_string(at) + " dropped", std::string(text).erase(at, 1));
}

void insertLineBreaks(std::string const& text, OnDamage const& onDamage) {
    for (std::size_t at = 0; at <= text.size(); ++at) {
        for (std::string const lineBreak : {"\n", "\r", "\r\n"})
            onDamage(shown(lineBreak) + " inserted at " + std::to_string(at), std::string(text).insert(at, lineBreak));
    }
}

void cutEverywhere(std::string const& text, OnDamage const& onDamage) {
    for (std::size_t size = 0; size < text.size(); ++size)
        onDamage("cut to " + std::to_string(size) + " bytes", text.substr(0, size));
}

void moveLines(std::string const& text, OnDamage const& onDamage) {
    std::vector<std::string> lines;
    for (std::size_t begin = 0; begin < text.size(); begin += lines.back().size())
        lines.push_back(text.substr(begin, text.find('\n', begin) - begin + 1));
    auto const report = [&](std::size_t at, char const* deed, std::vector<std::string> const& damaged) {
        std::string joined;
        for (auto const& line : damaged)
            joined += line;
        onDamage("line " + std::to_string(at + 1) + deed, joined);
    };
    for (std::size_t at = 0; at < lines.size(); ++at) {
        auto const offset = static_cast<std::ptrdiff_t>(at);
        auto damaged = lines;
        damaged.erase(damaged.begin() + offset);
        report(at, " dropped", damaged);
        damaged = lines;
        damaged.insert(damaged.begin() + offset, lines[at]);
        report(at, " doubled", damaged);
        if (at + 1 == lines.size())
            continue;
        damaged = lines;
        std::swap(damaged[at], damaged[at + 1]);
        report(at, " swapped with the next", damaged);
    }
}

void damageInEveryWay(std::string const& text, OnDamage const& onDamage) {
    onDamage("nothing", text);
    changeEveryByte(text, onDamage);
    dropEveryByte(text, onDamage);
    insertLineBreaks(text, onDamage);
    cutEverywhere(text, onDamage);
    moveLines(text, onDamage);
}

int checkSample(fs::path const& folder, std::string const& name, unsigned oneIn, std::uint64_t seed) {
    Checker checker(folder);
    std::mt19937_64 random(seed);
    std::string current;
    try {
        damageInEveryWay(damageSamples().at(name), [&](std::string const& damage, std::string const& text) {
            if (oneIn > 1 && random() % oneIn != 0)
                return;
            current = damage;
            checker.check(text);
        });
    } catch (Violation const& violation) {
        std::cout << name << ", " << current << ": " << violation.what() << '\n';
        return 1;
    }
    auto const& figures = checker.figures();
    std::cout << figures.files << ' ' << figures.opened << ' ' << figures.contents << ' ' << figures.commits << ' '
              << figures.refusedCommits << '\n';
    return 0;
}

int checkFile(fs::path const& folder, fs::path const& file) {
    try {
        Checker(folder).check(readFile(file));
    } catch (Violation const& violation) {
        std::cout << file.native() << ": " << violation.what() << '\n';
        return 1;
    }
    return 0;
}

} // namespace

} // namespace campaigns

int main(int argc, char** argv) {
    std::vector<std::string> const arguments(argv + 1, argv + argc);
    if (arguments == std::vector<std::string>{"--samples"}) {
        for (auto const& sample : campaigns::damageSamples())
            std::cout << sample.first << '\n';
        return 0;
    }
    if (arguments.size() == 3 && arguments[1] == "--check")
        return campaigns::checkFile(arguments[0], arguments[2]);
    if (arguments.size() == 2)
        return campaigns::checkSample(arguments[0], arguments[1], 1, 0);
    if (arguments.size() == 4)
        return campaigns::checkSample(arguments[0], arguments[1], static_cast<unsigned>(std::stoul(arguments[2])),
                                      std::stoull(arguments[3]));
    std::cerr << "see damage.cpp\n";
    return 2;
}
