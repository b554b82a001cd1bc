#include <tests/campaigns/Scenario.hpp>

#include <algorithm>
#include <array>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>

#include <poll.h>
#include <stdio_ext.h>

#include <opccore/CommitOptions.hpp>
#include <opccore/Exception.hpp>
#include <opccore/IPhysicalInputStream.hpp>
#include <opccore/IPhysicalOutputStream.hpp>
#include <opccore/StringConversion.hpp>
#include <tests/support/Base64Lines.hpp>
#include <tests/support/PackageText.hpp>
#include <textpackage/FilePart.hpp>
#include <textpackage/FilePartInfo.hpp>
#include <textpackage/MemoryPart.hpp>
#include <textpackage/TextFilePhysicalPackage.hpp>
#include <textpackage/TextPackageLightweightReader.hpp>

/// The main function of opctext, renamed.
int opctextMain(int argc, char** argv);

namespace campaigns {

namespace {

namespace fs = std::filesystem;

using opc::CommitOptions;
using opc::interfaces::IPhysicalInputStream;
using opc::interfaces::IPhysicalPart;
using opc::interfaces::OpenMode;
using opc::textpackage::FilePartInfo;
using opc::textpackage::TextFilePhysicalPackage;
using opc::textpackage::TextPackageLightweightReader;
using testsupport::base64Lines;
using testsupport::mixedBytes;
using testsupport::openingParts;
using testsupport::packageText;
using testsupport::PartText;

// --- Files that scenarios begin with

constexpr char const* PackagePath = "package.txt";
constexpr char const* ZipPath = "document.zip";

void writeFile(fs::path const& path, std::string const& content) {
    if (path.has_parent_path())
        fs::create_directories(path.parent_path());
    std::ofstream file(path, std::ios::binary);
    file << content;
    file.close();
    if (!file)
        throw std::runtime_error("could not prepare " + path.string());
}

std::string bigText() {
    std::string text;
    for (int line = 0; text.size() < 200000; ++line)
        text += "<row number=\"" + std::to_string(line) + "\"/>\n";
    return text;
}

std::string const longName = "/long/" + std::string(300, 'n') + "/" + std::string(280, 'm') + ".xml";

std::string smallPackage() {
    return packageText(openingParts({{"/b.bin", base64Lines(mixedBytes(300)), true},
                                     {"/c.bin", "YWJj", true},
                                     {"/d.xml", "<d/>\r\nwith a CR LF"},
                                     {"/deleted.xml", "to be deleted"},
                                     {"/empty.bin", "", true},
                                     {"/empty.xml", ""},
                                     {"/folder/inner/e.xml", "<e/>"},
                                     {"/metadata/m.xml", "<m/>"}}),
                       "the header\nin two lines");
}

std::string bigPackage() {
    return packageText(openingParts({{"/big.bin", base64Lines(mixedBytes(150000)), true}, {"/big.xml", bigText()}}));
}

void prepareNothing() {
}

void preparePackage() {
    writeFile(PackagePath, smallPackage());
    fs::permissions(PackagePath, static_cast<fs::perms>(0640));
}

void prepareBigPackage() {
    writeFile(PackagePath, bigPackage());
}

void preparePackageWithLongNames() {
    writeFile(PackagePath, packageText(openingParts({{longName, "<long/>"}, {"/a/b/c/d/e/f.xml", "<deep/>"}})));
}

Scenario acrossFileSystems(Scenario scenario) {
    scenario.name += "-across-file-systems";
    scenario.isAcrossFileSystems = true;
    return scenario;
}

// --- The library

/// Makes sure that a package which could not be opened or closed is closed, and that nothing worse than another failure
/// comes of opening it again.
void requireUsable(TextFilePhysicalPackage& package) {
    if (package.isOpen())
        throw Violation("the package is still open after a failure");
    try {
        package.open(OpenMode::Read);
    } catch (std::exception const&) {
        if (package.isOpen())
            throw Violation("the package counts as open although opening it again failed");
        return;
    }
    package.close(true);
}

/// A package at the path of all scenarios, which is looked at more closely after each failure.
class WatchedPackage {
public:
    explicit WatchedPackage(std::u16string const& path = u"package.txt") : package_(path) {}

    void open(OpenMode mode) {
        watching([&] { package_.open(mode); });
    }

    void close(bool discard = false) {
        watching([&] { package_.close(discard); });
    }

    TextFilePhysicalPackage& operator*() { return package_; }
    TextFilePhysicalPackage* operator->() { return &package_; }

    IPhysicalPart& part(std::u16string const& name) {
        for (auto* const part : package_.getParts()) {
            if (part->getName() == name)
                return *part;
        }
        throw Violation("there is no part " + opc::toUDEString(name));
    }

private:
    template <class Action>
    void watching(Action action) {
        try {
            action();
        } catch (...) {
            requireUsable(package_);
            throw;
        }
    }

    TextFilePhysicalPackage package_;
};

void write(IPhysicalPart& part, std::string const& content) {
    auto& stream = *part.getOutputStream();
    stream.write(content.data(), static_cast<std::int64_t>(content.size()));
}

void create(WatchedPackage& package, std::u16string const& name, std::u16string const& contentType,
            std::string const& content) {
    write(*package->createPart(name, contentType, FilePartInfo()), content);
}

std::string nameAndContent(IPhysicalPart& part) {
    return opc::toUDEString(part.getName()) + "\n" + testsupport::readAll(*part.getInputStream()) + "\n";
}

template <class Package>
std::string readAllParts(Package& package) {
    std::string content;
    content += testsupport::readAll(*package.getContentTypeInputStream()) + "\n";
    for (auto* const part : package.getParts())
        content += nameAndContent(*part);
    return content;
}

/// Opens the package for writing, changes it and commits.
template <class Change>
std::string commit(Change change, CommitOptions const& options = {}) {
    WatchedPackage package;
    package->setCommitOptions(options);
    package.open(OpenMode::ReadWrite);
    change(package);
    package.close();
    return "";
}

void changeOnePart(WatchedPackage& package) {
    write(package.part(u"/a.xml"), "<changed/>");
}

void changeEverything(WatchedPackage& package) {
    write(package.part(u"/a.xml"), "<changed/>");
    nameAndContent(package.part(u"/b.bin"));
    write(package.part(u"/c.bin"), "changed");
    package->deletePart(u"/deleted.xml");
    create(package, u"/new.xml", u"", "new");
    create(package, u"/new/image.png", u"image/png", mixedBytes(200));
    package->createPart(u"/never.xml", u"", FilePartInfo());
    write(*package->getContentTypesPart(), "<Types>changed</Types>");
    package->setTextFileHeader(u"another header");
}

CommitOptions withBackup(std::u16string const& path = u"") {
    CommitOptions options;
    options.keepBackup = true;
    options.backupPath = path;
    return options;
}

/// Runs an action that must fail with this message, and passes on any other failure.
template <class Action>
std::string messageOf(Action action, std::string const& message) {
    try {
        action();
    } catch (std::exception const& failure) {
        if (failure.what() != message)
            throw;
        return message;
    }
    throw Violation("no failure was reported: " + message);
}

std::string readLightly(std::vector<std::u16string> const& requested) {
    TextPackageLightweightReader reader(u"package.txt");
    for (auto const& name : requested)
        reader.addRequestedPart(name);
    try {
        reader.open(OpenMode::Read);
    } catch (...) {
        if (reader.isOpen())
            throw Violation("the reader is still open after a failure");
        throw;
    }
    auto content = readAllParts(reader);
    reader.close(false);
    return content;
}

std::vector<Scenario> readingScenarios() {
    return {
        {"open-read", preparePackage,
         [] {
             WatchedPackage package;
             package.open(OpenMode::Read);
             package.close();
             return "";
         }},
        {"open-read-write", preparePackage,
         [] {
             WatchedPackage package;
             package.open(OpenMode::ReadWrite);
             package.close();
             return "";
         }},
        {"open-create-and-discard", prepareNothing,
         [] {
             WatchedPackage package;
             package.open(OpenMode::Create);
             package.close(true);
             return "";
         }},
        {"open-what-is-not-there", prepareNothing,
         [] { return messageOf([] { WatchedPackage().open(OpenMode::Read); }, "Package does not exist"); }},
        {"open-what-is-no-package", [] { writeFile(PackagePath, "no package\n"); },
         [] {
             return messageOf([] { WatchedPackage().open(OpenMode::ReadWrite); },
                              "Reached end of file without finding ZKOPC_PACKAGE_BEGIN marker");
         }},
        {"open-without-content-types",
         [] {
             writeFile(PackagePath, packageText({{"/a.xml", "<a/>"}}));
         },
         [] {
             return messageOf([] { WatchedPackage().open(OpenMode::Read); }, "Content types stream does not exist");
         }},
        {"read-text", preparePackage,
         [] {
             WatchedPackage package;
             package.open(OpenMode::Read);
             return nameAndContent(package.part(u"/d.xml"));
         }},
        {"read-base64", preparePackage,
         [] {
             WatchedPackage package;
             package.open(OpenMode::Read);
             return nameAndContent(package.part(u"/b.bin"));
         }},
        {"read-all", preparePackage,
         [] {
             WatchedPackage package;
             package.open(OpenMode::Read);
             auto content = readAllParts(*package);
             package.close();
             return content;
         }},
        {"read-big-parts", prepareBigPackage,
         [] {
             WatchedPackage package;
             package.open(OpenMode::Read);
             return readAllParts(*package);
         }},
        {"read-long-names", preparePackageWithLongNames,
         [] {
             WatchedPackage package;
             package.open(OpenMode::ReadWrite);
             return readAllParts(*package);
         }},
        {"light-read-requested", preparePackage,
         [] {
             return readLightly({u"/b.bin", u"/D.xml", u"/folder/inner/e.xml"});
         }},
        {"light-read-and-stop-early", prepareBigPackage, [] { return readLightly({u"/a.xml"}); }},
        {"light-read-big-parts", prepareBigPackage,
         [] {
             return readLightly({u"/big.bin", u"/big.xml"});
         }},
        {"light-read-what-is-no-package", [] { writeFile(PackagePath, "no package\n"); },
         [] {
             return messageOf([] { readLightly({}); },
                              "Reached end of file without finding ZKOPC_PACKAGE_BEGIN marker");
         }},
    };
}

std::vector<Scenario> writingScenarios() {
    return {
        {"commit-text", preparePackage, [] { return commit(changeOnePart); }, PackagePath},
        {"commit-base64", preparePackage,
         [] { return commit([](WatchedPackage& package) { write(package.part(u"/b.bin"), mixedBytes(100)); }); },
         PackagePath},
        {"commit-created-parts", preparePackage,
         [] {
             return commit([](WatchedPackage& package) {
                 create(package, u"/new.xml", u"", "new");
                 create(package, u"/new.bin", u"application/binary", "new");
                 package->createPart(u"/never-written.xml", u"", FilePartInfo());
             });
         },
         PackagePath},
        {"commit-a-deletion", preparePackage,
         [] { return commit([](WatchedPackage& package) { package->deletePart(u"/deleted.xml"); }); }, PackagePath},
        {"commit-a-header", preparePackage,
         [] {
             return commit([](WatchedPackage& package) {
                 package->setTextFileHeader(u"another\nheader");
                 package->getContentTypeOutputStream()->write("<Types/>", 8);
             });
         },
         PackagePath},
        {"commit-everything", preparePackage, [] { return commit(changeEverything); }, PackagePath},
        {"commit-with-backup", preparePackage, [] { return commit(changeOnePart, withBackup()); }, PackagePath},
        {"commit-with-backup-over-an-older-one",
         [] {
             preparePackage();
             writeFile("package.txt.bak", "an older backup");
         },
         [] { return commit(changeEverything, withBackup()); }, PackagePath},
        {"commit-with-backup-in-another-folder",
         [] {
             preparePackage();
             fs::create_directory("backups");
         },
         [] { return commit(changeOnePart, withBackup(u"backups/kept.txt")); }, PackagePath},
        {"commit-new-file", prepareNothing,
         [] {
             WatchedPackage package;
             package.open(OpenMode::Create);
             create(package, u"/new.xml", u"", "new");
             create(package, u"/new.png", u"image/png", mixedBytes(100));
             package.close();
             return "";
         },
         PackagePath},
        {"commit-new-file-over-another", preparePackage,
         [] {
             WatchedPackage package;
             package->setCommitOptions(withBackup());
             package.open(OpenMode::Create);
             create(package, u"/new.xml", u"", "new");
             package.close();
             return "";
         },
         PackagePath},
        acrossFileSystems({"commit-everything", preparePackage, [] { return commit(changeEverything); }, PackagePath}),
        acrossFileSystems(
            {"commit-with-backup", preparePackage, [] { return commit(changeOnePart, withBackup()); }, PackagePath}),
        acrossFileSystems({"commit-new-file", prepareNothing,
                           [] {
                               WatchedPackage package;
                               package.open(OpenMode::Create);
                               create(package, u"/new.xml", u"", bigText());
                               package.close();
                               return "";
                           },
                           PackagePath}),
        {"commit-through-a-link",
         [] {
             writeFile("real/file.txt", smallPackage());
             fs::create_symlink("real/file.txt", PackagePath);
         },
         [] { return commit(changeOnePart, withBackup()); }, "real/file.txt"},
        {"commit-big-parts", prepareBigPackage,
         [] {
             return commit([](WatchedPackage& package) {
                 write(package.part(u"/big.xml"), "changed\n" + bigText());
                 create(package, u"/new.bin", u"application/binary", mixedBytes(100000));
             });
         },
         PackagePath},
        {"commit-long-names", preparePackageWithLongNames,
         [] {
             return commit([](WatchedPackage& package) {
                 write(package.part(opc::toString(longName, true)), "<changed/>");
                 create(package, u"/a/b/c/d/e/g.bin", u"image/png", "new");
             });
         },
         PackagePath},
        {"commit-after-reading", preparePackage,
         [] {
             WatchedPackage package;
             package.open(OpenMode::Read);
             auto content = readAllParts(*package);
             package.close();
             package.open(OpenMode::ReadWrite);
             changeOnePart(package);
             package.close();
             return content;
         }},
        {"commit-and-read-back", preparePackage,
         [] {
             WatchedPackage package;
             package.open(OpenMode::ReadWrite);
             changeEverything(package);
             package.close();
             package.open(OpenMode::Read);
             return readAllParts(*package);
         }},
        {"commit-cancelled", preparePackage,
         [] {
             return messageOf(
                 [] {
                     auto options = withBackup();
                     options.beforeReplace = [](std::u16string const&) { throw std::runtime_error("cancelled"); };
                     commit(changeEverything, options);
                 },
                 "cancelled");
         }},
        {"discard", preparePackage,
         [] {
             WatchedPackage package;
             package.open(OpenMode::ReadWrite);
             changeEverything(package);
             package.close(true);
             return "";
         }},
        {"destroy-without-closing", preparePackage,
         [] {
             WatchedPackage package;
             package.open(OpenMode::ReadWrite);
             changeEverything(package);
             return "";
         }},
    };
}

// --- opctext

/// Runs opctext with these arguments.
std::string opctext(std::vector<std::string> arguments) {
    __fpurge(stdout); // what an earlier run could not write
    arguments.insert(arguments.begin(), "opctext");
    std::vector<char*> words;
    for (auto& argument : arguments)
        words.push_back(argument.data());
    words.push_back(nullptr);
    int const status = opctextMain(static_cast<int>(arguments.size()), words.data());
    if (status != 0)
        throw std::runtime_error("opctext exited with " + std::to_string(status));
    return "";
}

/// A scenario of opctext that begins with a small package and may need more than that.
Scenario program(std::string const& name, std::vector<std::string> const& arguments, std::string const& target = "",
                 std::function<void()> const& prepareMore = prepareNothing) {
    Scenario scenario;
    scenario.name = "opctext-" + name;
    scenario.prepare = [prepareMore] {
        preparePackage();
        prepareMore();
    };
    scenario.run = [arguments] { return opctext(arguments); };
    scenario.target = target;
    scenario.isProgram = true;
    return scenario;
}

Scenario withInput(Scenario scenario, std::string const& input) {
    scenario.input = input;
    return scenario;
}

void prepareContent() {
    writeFile("content", "<new>content</new>");
}

void prepareZip() {
    opctext({"unpack", PackagePath, "-o", ZipPath});
}

void prepareOutput() {
    writeFile("document.zip.txt", "an older output");
    writeFile("package", "an older output");
    writeFile("out/a.xml", "an older output");
}

std::vector<Scenario> programScenarios() {
    auto const prepareZipAndOutput = [] {
        prepareZip();
        prepareOutput();
    };
    return {
        program("list", {"list", PackagePath}),
        program("list-json", {"list", PackagePath, "--json"}),
        program("info", {"info", PackagePath}),
        program("check", {"check", PackagePath}),
        program("check-json", {"check", PackagePath, "--json"}),
        program("cat", {"cat", PackagePath, "/b.bin", "/d.xml", "/a.xml"}),
        program("cat-big", {"cat", "big.txt", "/big.bin", "/big.xml"}, "", [] { writeFile("big.txt", bigPackage()); }),
        program("cat-light", {"cat", PackagePath, "/b.bin", "/d.xml", "--light"}),
        program("extract", {"extract", PackagePath, "-C", "out"}),
        program("extract-over-files", {"extract", PackagePath, "/a.xml", "-C", "out", "--force"}, "", prepareOutput),
        program("create", {"create", "new.txt"}, "new.txt"),
        program("create-over-a-file", {"create", PackagePath, "--force", "--backup"}, PackagePath),
        program("set", {"set", PackagePath, "/a.xml", "--from", "content"}, PackagePath, prepareContent),
        program("set-new-binary", {"set", PackagePath, "/new/part.bin", "--from", "content", "--binary"}, PackagePath,
                prepareContent),
        program("set-with-backup", {"set", PackagePath, "/b.bin", "--from", "content", "--backup"}, PackagePath,
                prepareContent),
        withInput(program("set-from-input", {"set", PackagePath, "/a.xml"}, PackagePath, prepareContent), "content"),
        acrossFileSystems(
            program("set", {"set", PackagePath, "/a.xml", "--from", "content"}, PackagePath, prepareContent)),
        program("rm", {"rm", PackagePath, "/b.bin", "/deleted.xml"}, PackagePath),
        program("header", {"header", PackagePath}),
        program("header-set", {"header", PackagePath, "--set", "another header"}, PackagePath),
        program("pack", {"pack", ZipPath}, "document.zip.txt", prepareZip),
        program("pack-without-verifying", {"pack", ZipPath, "--no-verify"}, "document.zip.txt", prepareZip),
        program("pack-over-a-file", {"pack", ZipPath, "--force"}, "document.zip.txt", prepareZipAndOutput),
        acrossFileSystems(program("pack", {"pack", ZipPath}, "document.zip.txt", prepareZip)),
        program("pack-to-output", {"pack", ZipPath, "-o", "-"}, "", prepareZip),
        withInput(program("pack-from-input", {"pack", "-", "-o", "packed.txt"}, "packed.txt", prepareZip), ZipPath),
        program("unpack", {"unpack", PackagePath}, "package"),
        program("unpack-without-verifying", {"unpack", PackagePath, "--no-verify"}, "package"),
        program("unpack-over-a-file", {"unpack", PackagePath, "--force"}, "package", prepareOutput),
        acrossFileSystems(program("unpack", {"unpack", PackagePath}, "package")),
        program("unpack-to-output", {"unpack", PackagePath, "-o", "-"}),
        program("pack-a-folder", {"pack", "folder", "-r"}, "",
                [] {
                    prepareZip();
                    std::filesystem::create_directories("folder/inner");
                    std::filesystem::copy_file(ZipPath, "folder/one.zip");
                    std::filesystem::copy_file(ZipPath, "folder/inner/two.zip");
                }),
        program("unpack-a-folder", {"unpack", "folder", "-r"}, "",
                [] {
                    writeFile("folder/one.txt", smallPackage());
                    writeFile("folder/inner/two.txt", bigPackage());
                }),
    };
}

} // namespace

std::vector<Scenario> const& scenarios() {
    static std::vector<Scenario> const all = [] {
        std::vector<Scenario> list;
        for (auto&& some : {readingScenarios(), writingScenarios(), programScenarios()})
            list.insert(list.end(), some.begin(), some.end());
        return list;
    }();
    return all;
}

Scenario const& scenarioNamed(std::string const& name) {
    for (auto const& scenario : scenarios()) {
        if (scenario.name == name)
            return scenario;
    }
    throw std::out_of_range("there is no scenario " + name);
}

void connectInput(Scenario const& scenario) {
    if (std::freopen(scenario.input.c_str(), "rb", stdin) == nullptr)
        throw std::runtime_error("no standard input from " + scenario.input);
}

int openDescriptors() {
    std::array<struct pollfd, 256> all{};
    for (std::size_t i = 0; i < all.size(); ++i)
        all[i].fd = static_cast<int>(i);
    ::poll(all.data(), all.size(), 0);
    return static_cast<int>(
        std::count_if(all.begin(), all.end(), [](struct pollfd const& one) { return (one.revents & POLLNVAL) == 0; }));
}

} // namespace campaigns
