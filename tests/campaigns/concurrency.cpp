#include <chrono>
#include <cstdint>
#include <exception>
#include <iostream>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include <opccore/CommitOptions.hpp>
#include <opccore/IPhysicalInputStream.hpp>
#include <opccore/IPhysicalOutputStream.hpp>
#include <opccore/StringConversion.hpp>
#include <textpackage/FilePart.hpp>
#include <textpackage/FilePartInfo.hpp>
#include <textpackage/MemoryPart.hpp>
#include <textpackage/TextFilePhysicalPackage.hpp>
#include <textpackage/TextPackageLightweightReader.hpp>

namespace {

using namespace opc::textpackage;
using opc::interfaces::IPhysicalPart;
using opc::interfaces::OpenMode;

std::string const ContentTypes = "/[Content_Types].xml";
std::string const SinglePart = "/single.txt"; // what opctext sets: of no generation but its own

/// The parts that each commit writes anew, all with the same stamp.
std::vector<std::string> const StampedParts{ContentTypes, "/_rels/.rels", "/metadata/info.xml", "/a.txt",
                                            "/b.bin",     "/c.txt",       "/d/e.bin",           "/f.txt"};

/// Who wrote a content, and as which of all the generations of the file.
struct Stamp {
    std::uint64_t generation = 0;
    std::string writer;
};

bool isBinary(std::string const& name) {
    return name.size() > 4 && name.compare(name.size() - 4, 4, ".bin") == 0;
}

/// The whole content of a part: its stamp in the first line, and again and again behind it, as often as the stamp and
/// the name say. concurrency.py makes the same by itself.
std::string contentOf(std::string const& name, Stamp const& stamp) {
    auto const words = std::to_string(stamp.generation) + " " + stamp.writer;
    auto content = words + '\n';
    auto const count = (stamp.generation * 37 + name.size() * 101 + stamp.writer.size()) % 997;
    for (std::uint64_t i = 0; i < count; ++i)
        content += (isBinary(name) ? std::string("\0\xFF", 2) : "") + name + " " + words + "\n";
    return content;
}

Stamp stampOf(std::string const& content) {
    auto const lineEnd = content.find('\n');
    auto const space = content.find(' ');
    if (lineEnd == std::string::npos || space > lineEnd)
        throw std::runtime_error("a content without a stamp: " + content.substr(0, 80));
    return {std::stoull(content.substr(0, space)), content.substr(space + 1, lineEnd - space - 1)};
}

/// Throws unless the parts are those of one commit, each of them whole; returns the stamp of the commit.
Stamp requireWhole(std::map<std::string, std::string> const& contents) {
    if (contents.size() != StampedParts.size() + 1)
        throw std::runtime_error("read " + std::to_string(contents.size()) + " parts");
    auto const stamp = stampOf(contents.at(ContentTypes));
    for (auto const& [name, content] : contents) {
        auto const expected = contentOf(name, name == SinglePart ? stampOf(content) : stamp);
        if (content != expected)
            throw std::runtime_error("part " + name + " is not what writer " + stamp.writer + " wrote as generation " +
                                     std::to_string(stamp.generation) + ": it has " + std::to_string(content.size()) +
                                     " bytes instead of " + std::to_string(expected.size()) + " and begins with " +
                                     content.substr(0, content.find('\n')));
    }
    return stamp;
}

std::string read(IPhysicalPart& part) {
    auto& stream = *part.getInputStream();
    std::string content;
    char block[4096];
    while (auto const count = stream.read(block, sizeof block))
        content.append(block, static_cast<std::size_t>(count));
    return content;
}

void write(IPhysicalPart& part, std::string const& content) {
    auto& stream = *part.getOutputStream();
    auto const size = static_cast<std::int64_t>(content.size());
    if (stream.write(content.data(), size) != size)
        throw std::runtime_error("a part could not be written");
}

/// All parts of a package of either kind, by their names.
template <class Package>
std::map<std::string, IPhysicalPart*> partsOf(Package& package) {
    std::map<std::string, IPhysicalPart*> parts{{ContentTypes, package.getContentTypesPart()}};
    for (auto* const part : package.getParts())
        parts[opc::detail::toUTF8String(part->getName(), true)] = part;
    return parts;
}

Stamp readWhole(std::map<std::string, IPhysicalPart*> const& parts) {
    std::map<std::string, std::string> contents;
    for (auto const& [name, part] : parts)
        contents[name] = read(*part);
    return requireWhole(contents);
}

void create(std::u16string const& path) {
    TextFilePhysicalPackage package(path);
    package.open(OpenMode::Create);
    Stamp const stamp{1, "nobody"};
    for (auto const& name : StampedParts) {
        auto const type = isBinary(name) ? u"application/binary" : u"";
        write(name == ContentTypes ? *package.getContentTypesPart()
                                   : *package.createPart(opc::toString(name, true), type, FilePartInfo()),
              contentOf(name, stamp));
    }
    write(*package.createPart(opc::toString(SinglePart, true), u"", FilePartInfo()), contentOf(SinglePart, stamp));
    package.close(false);
}

void changeOnce(std::u16string const& path, std::string const& writer, bool keepBackup) {
    TextFilePhysicalPackage package(path);
    opc::CommitOptions options;
    options.keepBackup = keepBackup;
    package.setCommitOptions(options);
    package.open(OpenMode::ReadWrite);
    auto const parts = partsOf(package);
    Stamp const stamp{readWhole(parts).generation + 1, writer};
    for (auto const& name : StampedParts)
        write(*parts.at(name), contentOf(name, stamp));
    package.close(false);
}

void readOnce(std::u16string const& path) {
    TextFilePhysicalPackage package(path);
    package.open(OpenMode::Read);
    readWhole(partsOf(package));
}

void readOnceLightly(std::u16string const& path) {
    TextPackageLightweightReader reader(path);
    for (auto const& name : StampedParts)
        reader.addRequestedPart(opc::toString(name, true));
    reader.addRequestedPart(opc::toString(SinglePart, true));
    reader.open(OpenMode::Read);
    readWhole(partsOf(reader));
}

/// Repeats an action until the time is up and prints how often it was done.
template <class Action>
void repeat(int seconds, Action action) {
    auto const end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    std::uint64_t count = 0;
    do {
        action();
        ++count;
    } while (std::chrono::steady_clock::now() < end);
    std::cout << count << '\n';
}

int run(std::vector<std::string> const& arguments) {
    auto const& role = arguments.at(0);
    auto const path = opc::toString(arguments.at(1), true);
    if (role == "create")
        return create(path), 0;
    auto const seconds = std::stoi(arguments.at(2));
    if (role == "read")
        repeat(seconds, [&] { readOnce(path); });
    else if (role == "read-lightly")
        repeat(seconds, [&] { readOnceLightly(path); });
    else if (role == "change")
        repeat(seconds, [&] { changeOnce(path, arguments.at(3), false); });
    else if (role == "change-with-backup")
        repeat(seconds, [&] { changeOnce(path, arguments.at(3), true); });
    else
        return 2;
    return 0;
}

} // namespace

/// One process of the campaign: ROLE FILE [SECONDS [WRITER]]. Prints how many times it read or changed the package;
/// exits with 1 and a message where anything failed, or a read didn't see a whole package.
int main(int count, char** arguments) {
    try {
        return run({arguments + 1, arguments + count});
    } catch (std::exception const& failure) {
        std::cerr << failure.what() << '\n';
        return 1;
    }
}
