#include <benchmarks/GeneratedPackage.hpp>

#include <algorithm>
#include <cstdio>

namespace benchmarks {

namespace {

constexpr std::size_t LineBytes = 57; // of content, in a line of Base64
constexpr std::size_t KiB = 1024;
constexpr std::size_t LongLine = 64 * KiB;
constexpr std::size_t WholePart = std::size_t{1} << 40; // a line as long as that never ends

std::string numbered(char const* pattern, std::size_t number) {
    char name[64];
    std::snprintf(name, sizeof name, pattern, number);
    return name;
}

} // namespace

GeneratedPackage::GeneratedPackage(std::ostream& out) : out_(out) {
    constexpr std::size_t PoolSize = 16384;
    for (std::size_t i = 0; i < PoolSize; ++i) {
        elements_.push_back(makeElement());
        base64Lines_.push_back(makeBase64Line());
    }
    out_ << "__ZKOPC_PACKAGE_BEGIN__ V3508k\n";
    addPart("/[Content_Types].xml",
            "<Types xmlns=\"http://schemas.openxmlformats.org/package/2006/content-types\">"
            "<Default Extension=\"rels\" ContentType=\"application/vnd.openxmlformats-package.relationships+xml\"/>"
            "<Default Extension=\"xml\" ContentType=\"application/xml\"/>"
            "<Default Extension=\"bin\" ContentType=\"application/octet-stream\"/></Types>",
            false);
    addPart("/_rels/.rels", "<Relationships xmlns=\"http://schemas.openxmlformats.org/package/2006/relationships\"/>",
            false);
}

void GeneratedPackage::addText(std::string const& name, std::size_t bytes, std::size_t lineBytes) {
    std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<w:document xmlns:w=\"urn:words\">";
    constexpr char End[] = "</w:document>";
    auto lineEnd = text.size() + lineBytes;
    while (text.size() + sizeof End <= bytes) {
        text += anyOf(elements_);
        if (text.size() >= lineEnd) {
            text += '\n';
            lineEnd = text.size() + lineBytes;
        }
    }
    addPart(name, text + End, false);
}

void GeneratedPackage::addBinary(std::string const& name, std::size_t bytes) {
    std::string text;
    auto const lines = std::max<std::size_t>(bytes / LineBytes, 1);
    for (std::size_t i = 0; i < lines; ++i)
        text.append(i == 0 ? "" : "\n").append(anyOf(base64Lines_));
    addPart(name, text, true);
    totals_.binaryBytes += lines * LineBytes;
}

Totals GeneratedPackage::finish() {
    out_ << "__ZKOPC_PACKAGE_END__\n";
    return totals_;
}

std::size_t GeneratedPackage::pick(std::size_t least, std::size_t most) {
    // Not a distribution of the standard library, whose results differ from one library to the next.
    return least + random_() % (most - least + 1);
}

void GeneratedPackage::addPart(std::string const& name, std::string const& content, bool isBase64) {
    out_ << "__ZKOPC_PART_BEGIN__ " << name << (isBase64 ? " BASE64\n" : "\n") << content << '\n';
    ++totals_.parts;
    if (!isBase64)
        totals_.textBytes += content.size();
}

template <class Item>
Item const& GeneratedPackage::anyOf(std::vector<Item> const& items) {
    return items[pick(0, items.size() - 1)];
}

std::string GeneratedPackage::makeElement() {
    static std::vector<std::string> const words{"the",      "quarter", "of",    "a",     "report", "table",
                                                "sum",      "year",    "größe", "naïve", "日本語", "_x000D_",
                                                "1,250.75", "and",     "value", "&amp;"};
    std::string element = "<w:r w:id=\"" + std::to_string(pick(1, 999999)) + "\"><w:t xml:space=\"preserve\">";
    for (auto count = pick(3, 18); count > 0; --count)
        element.append(anyOf(words)).append(" ");
    return element + "</w:t></w:r>";
}

std::string GeneratedPackage::makeBase64Line() {
    static std::string const alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string line;
    for (std::size_t i = 0; i < LineBytes / 3 * 4; ++i)
        line += alphabet[pick(0, alphabet.size() - 1)];
    return line;
}

Totals generateLarge(std::ostream& out, std::size_t bytes) {
    constexpr std::size_t PartsOfAKind = 8;
    auto const partBytes = bytes / (2 * PartsOfAKind);
    GeneratedPackage package(out);
    package.addText("/docProps/core.xml", KiB, KiB);
    for (std::size_t i = 1; i <= PartsOfAKind; ++i)
        package.addBinary(numbered("/word/embeddings/object%zu.bin", i), partBytes / 77 * LineBytes);
    for (std::size_t i = 1; i <= PartsOfAKind; ++i)
        package.addText(numbered("/word/header%zu.xml", i), partBytes, LongLine);
    package.addText("/word/webSettings.xml", KiB, KiB);
    return package.finish();
}

Totals generateText(std::ostream& out, std::size_t bytes) {
    constexpr std::size_t Parts = 16;
    GeneratedPackage package(out);
    package.addText("/docProps/core.xml", KiB, KiB);
    for (std::size_t i = 10; i < 10 + Parts; ++i)
        package.addText(numbered("/word/header%zu.xml", i), bytes / Parts, LongLine);
    return package.finish();
}

Totals generateSeries(std::ostream& out, std::size_t bytes) {
    constexpr std::size_t PartBytes = 64 * KiB;
    GeneratedPackage package(out);
    package.addText("/docProps/core.xml", KiB, KiB);
    for (std::size_t i = 0; i < bytes / PartBytes; ++i)
        package.addText(numbered("/word/part%06zu.xml", i), PartBytes, KiB);
    return package.finish();
}

Totals generateMany(std::ostream& out, std::size_t parts) {
    constexpr std::size_t PartsInAFolder = 1000;
    GeneratedPackage package(out);
    package.addText("/docProps/core.xml", KiB, KiB);
    for (std::size_t i = 0; i < parts; ++i) {
        auto const folder = numbered("/parts/%03zu", i / PartsInAFolder);
        if (i % 10 == 9)
            package.addBinary(folder + numbered("/part%06zu.bin", i), KiB);
        else
            package.addText(folder + numbered("/part%06zu.xml", i), KiB, KiB);
    }
    return package.finish();
}

Totals generateOffice(std::ostream& out) {
    GeneratedPackage package(out);
    package.addText("/docProps/core.xml", KiB, WholePart);
    for (std::size_t i = 10; i < 30; ++i)
        package.addBinary(numbered("/xl/media/image%zu.bin", i), package.pick(16 * KiB, 300 * KiB));
    for (std::size_t i = 100; i < 377; ++i)
        package.addText(numbered("/xl/worksheets/sheet%zu.xml", i), package.pick(KiB, 40 * KiB), WholePart);
    return package.finish();
}

} // namespace benchmarks
