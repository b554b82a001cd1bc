#include <tests/support/PackageText.hpp>

#include <cstddef>

namespace testsupport {

std::string packageText(std::vector<PartText> const& parts, std::string const& header) {
    std::string text = header.empty() ? "" : header + "\n";
    text += "__ZKOPC_PACKAGE_BEGIN__ V3508k\n";
    for (auto const& part : parts) {
        text += "__ZKOPC_PART_BEGIN__ " + part.name + (part.isBase64 ? " BASE64\n" : "\n");
        text += part.content + "\n";
    }
    return text + "__ZKOPC_PACKAGE_END__\n";
}

std::vector<PartText> openingParts(std::vector<PartText> const& more) {
    std::vector<PartText> parts{
        {"/[Content_Types].xml", "<Types/>"}, {"/_rels/.rels", "<Relationships/>"}, {"/a.xml", "<a/>"}};
    parts.insert(parts.end(), more.begin(), more.end());
    return parts;
}

std::string headerOfLines(int count) {
    std::string header;
    for (int line = 1; line <= count; ++line)
        header += (line == 1 ? "header line " : "\nheader line ") + std::to_string(line);
    return header;
}

std::string withCrLf(std::string const& text) {
    std::string result;
    for (char const c : text)
        result += c == '\n' ? "\r\n" : std::string(1, c);
    return result;
}

long offsetAfterLine(std::string const& text, int count) {
    std::size_t offset = 0;
    for (int line = 0; line < count; ++line)
        offset = text.find('\n', offset) + 1;
    return static_cast<long>(offset);
}

std::string readAll(opc::interfaces::IPhysicalInputStream& stream) {
    std::string bytes;
    char block[4096];
    for (auto count = stream.read(block, sizeof block); count > 0; count = stream.read(block, sizeof block))
        bytes.append(block, static_cast<std::size_t>(count));
    return bytes;
}

} // namespace testsupport
