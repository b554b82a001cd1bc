// Does one operation in a process of its own and prints, as JSON, how long it took and what it read or wrote.
// The names of the operations and their arguments stand in the table at the end.

#include <algorithm>
#include <chrono>
#include <cstring>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <benchmarks/MemoryWatch.hpp>
#include <opccore/IPhysicalInputStream.hpp>
#include <opccore/IPhysicalOutputStream.hpp>
#include <opccore/StringConversion.hpp>
#include <textpackage/FilePart.hpp>
#include <textpackage/FilePartInfo.hpp>
#include <textpackage/MemoryPart.hpp>
#include <textpackage/PartIndex.hpp>
#include <textpackage/TextFileBuffer.hpp>
#include <textpackage/TextFilePhysicalPackage.hpp>
#include <textpackage/TextPackageLightweightReader.hpp>

namespace {

using namespace opc::textpackage;
using opc::interfaces::IPhysicalPart;
using opc::interfaces::OpenMode;

using Arguments = std::vector<std::string>;

struct Outcome {
    double seconds = 0;
    std::uint64_t parts = 0;
    std::uint64_t bytes = 0;
};

class Stopwatch {
public:
    double seconds() const { return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin_).count(); }

private:
    std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
};

std::u16string toPath(std::string const& path) {
    return opc::toString(path, true);
}

std::uint64_t readToEnd(IPhysicalPart& part) {
    static std::vector<char> block(262144);
    auto& stream = *part.getInputStream();
    std::uint64_t bytes = 0;
    while (auto const count = stream.read(block.data(), static_cast<std::int64_t>(block.size())))
        bytes += static_cast<std::uint64_t>(count);
    return bytes;
}

bool isBinary(IPhysicalPart const& part) {
    return dynamic_cast<FilePart const&>(part).isBinary();
}

/// All parts, the content types as well.
std::vector<IPhysicalPart*> allParts(TextFilePhysicalPackage& package) {
    auto parts = package.getParts();
    parts.push_back(package.getContentTypesPart());
    return parts;
}

Outcome openForReading(Arguments const& arguments) {
    TextFilePhysicalPackage package(toPath(arguments.at(0)));
    Stopwatch const watch;
    package.open(OpenMode::Read);
    return {watch.seconds(), allParts(package).size(), 0};
}

/// The parts that `isWanted` says, read from a package that is open already.
Outcome readParts(std::string const& path, bool (*isWanted)(IPhysicalPart const&)) {
    TextFilePhysicalPackage package(toPath(path));
    package.open(OpenMode::Read);
    Outcome outcome;
    Stopwatch const watch;
    for (auto* const part : allParts(package)) {
        if (!isWanted(*part))
            continue;
        ++outcome.parts;
        outcome.bytes += readToEnd(*part);
    }
    outcome.seconds = watch.seconds();
    return outcome;
}

Outcome readText(Arguments const& arguments) {
    return readParts(arguments.at(0), [](IPhysicalPart const& part) { return !isBinary(part); });
}

Outcome decode(Arguments const& arguments) {
    return readParts(arguments.at(0), isBinary);
}

Outcome openAndReadAll(Arguments const& arguments) {
    Outcome outcome;
    TextFilePhysicalPackage package(toPath(arguments.at(0)));
    Stopwatch const watch;
    package.open(OpenMode::Read);
    for (auto* const part : allParts(package)) {
        ++outcome.parts;
        outcome.bytes += readToEnd(*part);
    }
    outcome.seconds = watch.seconds();
    return outcome;
}

/// A mapped package whose pages are all in place, as they are for whoever has just read it.
class WarmPackage {
public:
    explicit WarmPackage(std::string const& path) : buffer_(toPath(path)) {
        constexpr std::size_t PageBytes = 4096;
        char volatile touched = 0;
        for (std::size_t i = 0; i < text().size(); i += PageBytes)
            touched = text()[i];
        static_cast<void>(touched);
    }

    std::string_view text() const { return buffer_.content(); }

    /// What stands behind the package-begin line.
    std::string_view parts() const { return text().substr(text().find('\n') + 1); }

private:
    TextFileBuffer buffer_;
};

/// Room whose pages are all in place.
std::vector<char> warmRoom(std::size_t size) {
    return std::vector<char>(size, 'x');
}

Outcome index(Arguments const& arguments) {
    WarmPackage const package(arguments.at(0));
    Outcome outcome{0, 0, package.text().size()};
    Stopwatch const watch;
    indexParts(package.parts(), [&](IndexedPart const&) { ++outcome.parts; });
    outcome.seconds = watch.seconds();
    return outcome;
}

/// Copies pieces of a warm package into warm room, and sees that they arrived.
Outcome copyPieces(std::vector<std::string_view> const& pieces) {
    Outcome outcome;
    for (auto const piece : pieces)
        outcome.bytes += piece.size();
    auto room = warmRoom(outcome.bytes);
    auto* end = room.data();
    Stopwatch const watch;
    for (auto const piece : pieces) {
        std::memcpy(end, piece.data(), piece.size());
        end += piece.size();
    }
    outcome.seconds = watch.seconds();
    auto const* copied = room.data();
    for (auto const piece : pieces) {
        if (std::string_view(copied, piece.size()) != piece)
            throw std::runtime_error("the copy differs");
        copied += piece.size();
    }
    return outcome;
}

Outcome copyAll(Arguments const& arguments) {
    WarmPackage const package(arguments.at(0));
    return copyPieces({package.text()});
}

Outcome copyText(Arguments const& arguments) {
    WarmPackage const package(arguments.at(0));
    std::vector<std::string_view> pieces;
    indexParts(package.parts(), [&](IndexedPart const& part) {
        if (!part.begin.isBase64)
            pieces.push_back(package.parts().substr(part.contentBegin, part.contentEnd - part.contentBegin));
    });
    return copyPieces(pieces);
}

std::string readString(IPhysicalPart& part) {
    std::string content(4096, '\0');
    content.resize(static_cast<std::size_t>(
        part.getInputStream()->read(content.data(), static_cast<std::int64_t>(content.size()))));
    return content;
}

IPhysicalPart& find(std::vector<IPhysicalPart*> const& parts, std::u16string const& name) {
    for (auto* const part : parts) {
        if (part->getName() == name)
            return *part;
    }
    throw std::runtime_error("a part is missing: " + opc::toUDEString(name));
}

/// Opens, changes one small part, commits. Then sees, untimed, that the change is in the file.
Outcome edit(Arguments const& arguments) {
    static std::u16string const name = u"/docProps/core.xml";
    std::string const content = "<core>changed</core>";
    Outcome outcome;
    TextFilePhysicalPackage package(toPath(arguments.at(0)));
    Stopwatch const watch;
    package.open(OpenMode::ReadWrite);
    outcome.parts = allParts(package).size();
    find(package.getParts(), name).getOutputStream()->write(content.data(), static_cast<std::int64_t>(content.size()));
    package.close(false);
    outcome.seconds = watch.seconds();

    TextPackageLightweightReader reader(toPath(arguments.at(0)));
    reader.open(OpenMode::Read);
    if (readString(find(reader.getParts(), name)) != content)
        throw std::runtime_error("the change isn't in the file");
    return outcome;
}

/// Stores a file as the one binary part of a new package.
Outcome encode(Arguments const& arguments) {
    Outcome outcome;
    std::vector<char> block(1 << 20);
    std::ifstream source(arguments.at(1), std::ios::binary);
    TextFilePhysicalPackage package(toPath(arguments.at(0)));
    Stopwatch const watch;
    package.open(OpenMode::Create);
    auto& part = *package.createPart(u"/data.bin", u"application/binary", FilePartInfo());
    auto& stream = *part.getOutputStream();
    while (source.read(block.data(), static_cast<std::streamsize>(block.size())), source.gcount() > 0) {
        stream.write(block.data(), source.gcount());
        outcome.bytes += static_cast<std::uint64_t>(source.gcount());
    }
    package.close(false);
    outcome.seconds = watch.seconds();
    outcome.parts = 1;
    return outcome;
}

Outcome openLightly(std::string const& path, std::optional<std::string> const& wanted) {
    TextPackageLightweightReader reader(toPath(path));
    if (wanted)
        reader.addRequestedPart(toPath(*wanted));
    Outcome outcome;
    Stopwatch const watch;
    reader.open(OpenMode::Read);
    if (wanted)
        outcome.bytes = readToEnd(find(reader.getParts(), toPath(*wanted)));
    outcome.seconds = watch.seconds();
    outcome.parts = reader.getParts().size() + 1;
    return outcome;
}

/// The light reader, with nothing wanted behind the third part. Takes so little time that the median of many rounds
/// is given.
Outcome lightThird(Arguments const& arguments) {
    constexpr std::size_t Rounds = 201;
    std::vector<Outcome> outcomes;
    for (std::size_t i = 0; i < Rounds; ++i)
        outcomes.push_back(openLightly(arguments.at(0), std::nullopt));
    std::nth_element(outcomes.begin(), outcomes.begin() + Rounds / 2, outcomes.end(),
                     [](Outcome const& a, Outcome const& b) { return a.seconds < b.seconds; });
    return outcomes[Rounds / 2];
}

Outcome lightLast(Arguments const& arguments) {
    return openLightly(arguments.at(0), arguments.at(1));
}

std::map<std::string, std::function<Outcome(Arguments const&)>> const operations{
    {"open", openForReading},     // PACKAGE
    {"index", index},             // PACKAGE: on mapped memory
    {"memcpy", copyAll},          // PACKAGE: the same bytes
    {"read-text", readText},      // PACKAGE: that is open
    {"memcpy-text", copyText},    // PACKAGE: the same bytes
    {"decode", decode},           // PACKAGE: that is open, every binary part
    {"read-all", openAndReadAll}, // PACKAGE: opens it as well
    {"edit", edit},               // PACKAGE: opens, changes one part and commits
    {"encode", encode},           // PACKAGE FILE: the file as the binary part of a new package
    {"light-third", lightThird},  // PACKAGE
    {"light-last", lightLast},    // PACKAGE PART
};

int run(Arguments arguments) {
    std::optional<benchmarks::MemoryWatch> memory;
    if (!arguments.empty() && arguments.front() == "--memory") {
        memory.emplace();
        arguments.erase(arguments.begin());
    }
    auto const operation = arguments.empty() ? operations.end() : operations.find(arguments.front());
    if (operation == operations.end())
        throw std::invalid_argument("usage: bench_operations [--memory] OPERATION PACKAGE [FILE]");
    auto const outcome = operation->second({arguments.begin() + 1, arguments.end()});
    std::cout << "{\"seconds\": " << outcome.seconds << ", \"parts\": " << outcome.parts
              << ", \"bytes\": " << outcome.bytes << ", \"own_memory\": " << (memory ? memory->peak() : 0) << "}\n";
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    try {
        return run({argv + 1, argv + argc});
    } catch (std::exception const& failure) {
        std::cerr << "bench_operations: " << failure.what() << '\n';
        return 1;
    }
}
