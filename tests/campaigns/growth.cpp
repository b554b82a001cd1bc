#include <cstdint>
#include <exception>
#include <functional>
#include <iostream>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

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

std::string const SmallContent(100, 'x');

std::uint64_t read(IPhysicalPart& part) {
    auto& stream = *part.getInputStream();
    std::uint64_t size = 0;
    static char block[65536];
    while (auto const count = stream.read(block, sizeof block))
        size += static_cast<std::uint64_t>(count);
    stream.close(); // a stream on a temporary file holds a descriptor until then
    return size;
}

void write(IPhysicalPart& part, std::string const& content) {
    auto& stream = *part.getOutputStream();
    auto const size = static_cast<std::int64_t>(content.size());
    if (stream.write(content.data(), size) != size)
        throw std::runtime_error("a part could not be written");
    stream.close();
}

/// What the operations work on.
struct Task {
    std::u16string path;
    std::uint64_t count = 1; // of parts, bytes or times

    /// The name of a numbered part of the packages that growth.py makes.
    static std::u16string partName(std::uint64_t number) {
        auto const digits = std::to_string(number);
        return opc::toString("/part/" + std::string(7 - digits.size(), '0') + digits + ".xml", true);
    }
};

std::uint64_t openOnly(Task const& task) {
    TextFilePhysicalPackage package(task.path);
    package.open(OpenMode::Read);
    return 0;
}

std::uint64_t listParts(Task const& task) {
    TextFilePhysicalPackage package(task.path);
    package.open(OpenMode::Read);
    std::uint64_t size = 0;
    for (auto const* const part : package.getParts())
        size += part->getName().size();
    return size;
}

std::uint64_t readAll(Task const& task) {
    TextFilePhysicalPackage package(task.path);
    package.open(OpenMode::Read);
    std::uint64_t size = 0;
    for (auto* const part : package.getParts())
        size += read(*part);
    return size;
}

std::uint64_t readOne(Task const& task) {
    TextFilePhysicalPackage package(task.path);
    package.open(OpenMode::Read);
    return read(*package.getParts().back());
}

std::uint64_t readOneAgainAndAgain(Task const& task) {
    TextFilePhysicalPackage package(task.path);
    package.open(OpenMode::Read);
    auto& part = *package.getParts().back();
    std::uint64_t count = 0;
    for (; count < task.count; ++count) {
        char byte = 0;
        auto& stream = *part.getInputStream();
        stream.close();
        stream.open();
        stream.read(&byte, 1);
    }
    return count;
}

std::uint64_t readLightly(Task const& task, std::vector<std::u16string> const& requests) {
    TextPackageLightweightReader reader(task.path);
    for (auto const& name : requests)
        reader.addRequestedPart(name);
    reader.open(OpenMode::Read);
    std::uint64_t size = 0;
    for (auto* const part : reader.getParts())
        size += read(*part);
    return size;
}

std::uint64_t readNoneLightly(Task const& task) {
    return readLightly(task, {});
}

std::uint64_t readOneLightly(Task const& task) {
    return readLightly(task, {Task::partName(task.count)});
}

std::uint64_t readAllLightly(Task const& task) {
    std::vector<std::u16string> requests;
    for (std::uint64_t number = 1; number <= task.count; ++number)
        requests.push_back(Task::partName(number));
    return readLightly(task, requests);
}

void edit(std::u16string const& path, std::function<void(TextFilePhysicalPackage&)> const& change) {
    TextFilePhysicalPackage package(path);
    package.open(OpenMode::ReadWrite);
    change(package);
    package.close(false);
}

std::uint64_t editOne(Task const& task) {
    edit(task.path, [](auto& package) { write(*package.getContentTypesPart(), SmallContent); });
    return 1;
}

std::uint64_t editAll(Task const& task) {
    edit(task.path, [](auto& package) {
        for (auto* const part : package.getParts())
            write(*part, SmallContent);
    });
    return task.count;
}

std::uint64_t deleteAll(Task const& task) {
    edit(task.path, [](auto& package) {
        for (auto* const part : package.getParts())
            package.deletePart(part->getName());
    });
    return task.count;
}

std::uint64_t createMany(Task const& task) {
    TextFilePhysicalPackage package(task.path);
    package.open(OpenMode::Create);
    for (std::uint64_t number = 1; number <= task.count; ++number)
        write(*package.createPart(Task::partName(number), u"", FilePartInfo()), SmallContent);
    package.close(false);
    return task.count;
}

/// One part of very many bytes, written in blocks.
std::uint64_t createLarge(Task const& task, std::u16string const& contentType) {
    TextFilePhysicalPackage package(task.path);
    package.open(OpenMode::Create);
    auto& stream = *package.createPart(Task::partName(1), contentType, FilePartInfo())->getOutputStream();
    static std::string const block(65536, 'x');
    for (std::uint64_t written = 0; written < task.count; written += block.size())
        stream.write(block.data(), static_cast<std::int64_t>(block.size()));
    package.close(false);
    return task.count;
}

std::uint64_t createLargeText(Task const& task) {
    return createLarge(task, u"");
}

std::uint64_t createLargeBinary(Task const& task) {
    return createLarge(task, u"application/binary");
}

std::uint64_t setHeader(Task const& task) {
    edit(task.path, [&](auto& package) {
        package.setTextFileHeader(std::u16string(task.count, u'h'));
        write(*package.getContentTypesPart(), SmallContent);
    });
    return task.count;
}

std::map<std::string, std::function<std::uint64_t(Task const&)>> const Operations{
    {"open", openOnly},
    {"list", listParts},
    {"read-all", readAll},
    {"read-one", readOne},
    {"read-again", readOneAgainAndAgain},
    {"light-none", readNoneLightly},
    {"light-one", readOneLightly},
    {"light-all", readAllLightly},
    {"edit-one", editOne},
    {"edit-all", editAll},
    {"delete-all", deleteAll},
    {"create-many", createMany},
    {"create-large-text", createLargeText},
    {"create-large-binary", createLargeBinary},
    {"set-header", setHeader},
};

} // namespace

/// Does one thing to one package: OPERATION FILE [COUNT]. growth.py measures the process.
int main(int count, char** arguments) {
    if (count < 3)
        return 2;
    try {
        Task task;
        task.path = opc::toString(arguments[2], true);
        if (count > 3)
            task.count = std::stoull(arguments[3]);
        std::cout << Operations.at(arguments[1])(task) << '\n';
    } catch (std::exception const& failure) {
        std::cerr << failure.what() << '\n';
        return 1;
    }
    return 0;
}
