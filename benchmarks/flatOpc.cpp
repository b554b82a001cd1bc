// The same package as one XML file with Base64 inside, which is what people have used as a readable package: makes one
// of a text package, or reads one and decodes every part, and prints as JSON how long that took.

#include <algorithm>
#include <chrono>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>
#include <string_view>

#include <pugixml.hpp>

#include <opccore/Base64.hpp>
#include <opccore/StringConversion.hpp>
#include <textpackage/PartIndex.hpp>
#include <textpackage/TextFileBuffer.hpp>

namespace {

std::string_view withoutXmlDeclaration(std::string_view text) {
    return text.substr(0, 5) == "<?xml" ? text.substr(text.find("?>") + 2) : text;
}

void make(std::string const& package, std::string const& xml) {
    opc::textpackage::TextFileBuffer const buffer(opc::toString(package, true));
    auto const text = buffer.content().substr(buffer.content().find('\n') + 1);
    std::ofstream out(xml, std::ios::binary);
    out.exceptions(std::ios::badbit | std::ios::failbit);
    out << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<pkg:package xmlns:pkg=\"urn:flat-opc\">\n";
    opc::textpackage::indexParts(text, [&](opc::textpackage::IndexedPart const& part) {
        auto const content = text.substr(part.contentBegin, part.contentEnd - part.contentBegin);
        out << "<pkg:part pkg:name=\"" << opc::detail::toUTF8String(part.begin.name, true) << "\">";
        if (part.begin.isBase64)
            out << "<pkg:binaryData>" << content << "</pkg:binaryData>";
        else
            out << "<pkg:xmlData>" << withoutXmlDeclaration(content) << "</pkg:xmlData>";
        out << "</pkg:part>\n";
    });
    out << "</pkg:package>\n";
    out.close();
}

std::uint64_t decodeLines(char const* text) {
    std::uint64_t bytes = 0;
    std::string_view left(text);
    while (!left.empty()) {
        auto const end = std::min(left.find('\n'), left.size());
        bytes += foundation::crypto::utils::base64Decode(std::string(left.substr(0, end))).size();
        left.remove_prefix(std::min(end + 1, left.size()));
    }
    return bytes;
}

/// XML parts stay nodes, which is less than giving out their text; so the comparison favours the XML file.
void parse(std::string const& xml) {
    auto const begin = std::chrono::steady_clock::now();
    pugi::xml_document document;
    if (auto const result = document.load_file(xml.c_str()); !result)
        throw std::runtime_error(result.description());
    std::uint64_t parts = 0;
    std::uint64_t binaryBytes = 0;
    for (auto const part : document.child("pkg:package").children("pkg:part")) {
        ++parts;
        if (auto const data = part.child("pkg:binaryData"))
            binaryBytes += decodeLines(data.text().get());
        else if (!part.child("pkg:xmlData").first_child())
            throw std::runtime_error("a part without content");
    }
    std::chrono::duration<double> const seconds = std::chrono::steady_clock::now() - begin;
    std::cout << "{\"seconds\": " << seconds.count() << ", \"parts\": " << parts << ", \"bytes\": " << binaryBytes
              << "}\n";
}

} // namespace

int main(int argc, char** argv) {
    try {
        if (argc == 4 && argv[1] == std::string("make"))
            make(argv[2], argv[3]);
        else if (argc == 3 && argv[1] == std::string("parse"))
            parse(argv[2]);
        else
            throw std::invalid_argument("usage: flat_opc make PACKAGE XML | flat_opc parse XML");
        return 0;
    } catch (std::exception const& failure) {
        std::cerr << "flat_opc: " << failure.what() << '\n';
        return 1;
    }
}
