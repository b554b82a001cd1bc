// Reads a part of a package, changes it and commits, through the core's interface alone:
//     editPackage report.docx.txt /word/document.xml dog cat

#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>

#include <opccore/IPhysicalInputStream.hpp>
#include <opccore/IPhysicalOutputStream.hpp>
#include <opccore/IPhysicalPackage.hpp>
#include <opccore/IPhysicalPart.hpp>
#include <opccore/StringConversion.hpp>
#include <textpackage/TextFilePhysicalPackage.hpp>

using namespace opc::interfaces;

namespace {

IPhysicalPart& findPart(IPhysicalPackage& package, std::u16string const& name) {
    for (IPhysicalPart* part : package.getParts()) {
        if (part->getName() == name)
            return *part;
    }
    throw std::runtime_error("no such part");
}

std::string read(IPhysicalPart& part) {
    std::string content;
    char block[4096];
    IPhysicalInputStream& stream = *part.getInputStream();
    while (auto const count = stream.read(block, sizeof block))
        content.append(block, static_cast<std::size_t>(count));
    return content;
}

} // namespace

int main(int argc, char** argv) try {
    if (argc != 5)
        throw std::invalid_argument("usage: editPackage FILE PART OLD NEW");

    opc::textpackage::TextFilePhysicalPackage textPackage(opc::toString(argv[1], true));
    IPhysicalPackage& package = textPackage;
    package.open(OpenMode::ReadWrite);
    IPhysicalPart& part = findPart(package, opc::toString(argv[2], true));
    std::string content = read(part);
    auto const at = content.find(argv[3]);
    if (at == std::string::npos)
        throw std::runtime_error("the part doesn't hold that text");
    content.replace(at, std::string(argv[3]).size(), argv[4]);
    part.getOutputStream()->write(content.data(), static_cast<std::int64_t>(content.size()));
    package.close(false); // commits; without it the file would stay as it was
    return 0;
} catch (std::exception const& failure) {
    std::cerr << "editPackage: " << failure.what() << '\n';
    return 1;
}
