#include <exception>
#include <iostream>
#include <string>

#include <opccore/CommitOptions.hpp>
#include <opccore/IPhysicalOutputStream.hpp>
#include <opccore/StringConversion.hpp>
#include <textpackage/FilePart.hpp>
#include <textpackage/FilePartInfo.hpp>
#include <textpackage/TextFilePhysicalPackage.hpp>

namespace {

void write(opc::interfaces::IPhysicalPart& part, std::string const& content) {
    part.getOutputStream()->write(content.data(), static_cast<std::int64_t>(content.size()));
}

void commitOnce(std::string const& path, bool keepBackup) {
    opc::textpackage::TextFilePhysicalPackage package(opc::toString(path, true));
    opc::CommitOptions options;
    options.keepBackup = keepBackup;
    package.setCommitOptions(options);
    package.open(opc::interfaces::OpenMode::ReadWrite);
    for (auto* const part : package.getParts()) {
        if (part->getName() == u"/a.xml")
            write(*part, "<changed/>");
    }
    write(*package.createPart(u"/new.bin", u"application/binary", opc::textpackage::FilePartInfo()), "new");
    package.close(false);
}

} // namespace

/// Opens the package that it is given, changes its part "/a.xml", adds a binary part "/new.bin" and commits, with a
/// backup where "--keep-backup" follows. Exits with 1 and the message where that fails. Made to be killed at any
/// moment.
int main(int count, char** arguments) {
    if (count < 2)
        return 2;
    try {
        commitOnce(arguments[1], count > 2 && std::string(arguments[2]) == "--keep-backup");
    } catch (std::exception const& failure) {
        std::cerr << failure.what() << '\n';
        return 1;
    }
    return 0;
}
