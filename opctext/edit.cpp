#include <opctext/commands.hpp>

#include <iterator>

#include <opccore/Exception.hpp>
#include <opccore/IPhysicalOutputStream.hpp>
#include <opccore/LocalFileSystemOps.hpp>
#include <opccore/StringConversion.hpp>
#include <opctext/Failure.hpp>
#include <opctext/Messages.hpp>
#include <opctext/OpenPackage.hpp>
#include <opctext/PackageListing.hpp>
#include <opctext/StandardStreams.hpp>
#include <opctext/contentForm.hpp>
#include <opctext/partNames.hpp>
#include <textpackage/FilePart.hpp>
#include <textpackage/FilePartInfo.hpp>

namespace opctext {

namespace {

using opc::textpackage::FilePartInfo;

char const* const NoContentTypes = "<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"yes\"?>\n"
                                   "<Types xmlns=\"http://schemas.openxmlformats.org/package/2006/content-types\"/>\n";

/// All of a file or, for "-", of standard input.
std::string readAll(std::string const& path) {
    std::string content;
    if (path == "-") {
        readInput([&](std::string_view block) { content += block; });
        return content;
    }
    PackageFile(path).run([&] {
        auto const stream = opc::LocalFileSystemOps().createInputStream(opc::toString(path, true),
                                                                        opc::StreamMode::In | opc::StreamMode::Binary);
        content.assign(std::istreambuf_iterator<char>(*stream), std::istreambuf_iterator<char>());
    });
    return content;
}

void writeContent(IPhysicalPart& part, std::string_view content) {
    auto& stream = *part.getOutputStream();
    stream.write(content.data(), static_cast<std::int64_t>(content.size()));
    stream.flush();
    if (stream.hasFailed())
        throw Failure(ExitStatus::InputOutput,
                      "the temporary file of " + printable(nameOf(part)) + " could not be written: is the disk full?");
}

[[noreturn]] void refuse(std::string const& subject, std::string const& reason) {
    throw Failure(ExitStatus::WrongUsage, subject + ": " + reason);
}

/// Whether to store the content as binary. Throws for content that can't be stored as asked for.
bool decideBinary(std::string_view content, ContentForm form, std::string const& subject) {
    auto const fault = findContentFault(content);
    if (!fault.empty())
        refuse(subject, fault + "; no package can hold it");
    if (form == ContentForm::Text && !content.empty() && content.back() == '\r')
        refuse(subject, "the content ends in CR, which would be lost in a text part; store it with --binary");
    return form == ContentForm::Binary || (form == ContentForm::ByContent && !isFitForText(content));
}

void requireNoFolderConflict(OpenPackage& package, std::string const& name, std::string const& subject) {
    for (auto const* const part : package.parts()) {
        auto const other = nameOf(*part);
        if (isFolderOf(name, other) || isFolderOf(other, name))
            refuse(subject, "no file system could hold it beside part " + printable(other));
    }
}

} // namespace

void createPackage(std::string const& path, bool mayOverwrite, KeepBackup keepBackup) {
    createPackageFile(PackageFile(path), mayOverwrite, keepBackup,
                      [](OpenPackage& package) { writeContent(*package->getContentTypesPart(), NoContentTypes); });
}

void setPart(std::string const& path, std::string const& name, std::string const& source, ContentForm form,
             KeepBackup keepBackup) {
    auto const subject = path + ": part " + printable(name);
    auto const fault = findNameFault(name);
    if (!fault.empty())
        refuse(subject, fault);
    auto const content = readAll(source);
    bool const isBinary = decideBinary(content, form, subject);

    editPackage(PackageFile(path), keepBackup, [&](OpenPackage& package) {
        requireNoFolderConflict(package, name, subject);
        // A new part even where there is one: it takes the place of the other, and may have another form.
        auto* const existing = package.find(name);
        auto const partName = existing != nullptr ? existing->getName() : opc::toString(name, true);
        writeContent(*package->createPart(partName, contentTypeFor(isBinary), FilePartInfo()), content);
    });
}

void removeParts(std::string const& path, std::vector<std::string> const& names, KeepBackup keepBackup) {
    editPackage(PackageFile(path), keepBackup, [&](OpenPackage& package) {
        for (auto* const part : package.findAll(names)) {
            if (part == package->getContentTypesPart())
                refuse(path, std::string("part ") + ContentTypesName + " stays: no package can be opened without it");
        }
        for (auto const& name : names) {
            if (auto* const part = package.find(name)) // else it was named twice
                package->deletePart(part->getName());
        }
    });
}

void showHeader(std::string const& path) {
    for (auto const& line : readHeaderLines(PackageFile(path)))
        writeOutput(line + '\n');
}

void setHeader(std::string const& path, std::string const& header, KeepBackup keepBackup) {
    editPackage(PackageFile(path), keepBackup, [&](OpenPackage& package) {
        try {
            package->setTextFileHeader(opc::toString(header, true));
        } catch (opc::Exception const& failure) {
            refuse(path, failure.what());
        }
        // A new header alone is no change that a commit is made for. The content types part, which every package has,
        // is written again as it is.
        std::string contentTypes;
        readContent(*package->getContentTypesPart(), [&](std::string_view block) { contentTypes += block; });
        writeContent(*package->getContentTypesPart(), contentTypes);
    });
}

std::string readHeaderFile(std::string const& source) {
    auto header = readAll(source);
    if (!header.empty() && header.back() == '\n')
        header.pop_back(); // it ends the last line, and the package file has one of its own there
    return header;
}

} // namespace opctext
