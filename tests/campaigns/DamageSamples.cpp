#include <tests/campaigns/DamageSamples.hpp>

namespace campaigns {

namespace {

std::string const Begin = "__ZKOPC_PACKAGE_BEGIN__ V3508k\n";
std::string const End = "__ZKOPC_PACKAGE_END__\n";

/// A part as it stands in a text; `content` with the line break behind it.
std::string part(std::string const& nameAndFlag, std::string const& content) {
    return "__ZKOPC_PART_BEGIN__ " + nameAndFlag + "\n" + content;
}

std::string const Opening = part("/[Content_Types].xml", "<Types/>\n") + part("/_rels/.rels", "<R/>\n");

std::string package(std::string const& parts) {
    return Begin + Opening + parts + End;
}

std::string withCrLf(std::string const& text) {
    std::string result;
    for (char const c : text)
        result += c == '\n' ? "\r\n" : std::string(1, c);
    return result;
}

std::string manyParts() {
    std::string parts;
    for (char first = 'a'; first < 'f'; ++first) {
        for (char second = 'a'; second < 'f'; ++second)
            parts += part(std::string("/") + first + second + (second == 'c' ? " BASE64" : ""),
                          second == 'c' ? "QUI=\n" : "x\n");
    }
    return package(parts);
}

std::string headerLines(int count) {
    std::string header;
    for (int i = 0; i < count; ++i)
        header += "h" + std::to_string(i) + "\n";
    return header;
}

std::string longNames() {
    std::string const component(130, 'n');
    return package(part("/" + component + "/" + component + " BASE64", "QUI=\n") +
                   part("/" + std::string(251, 'm') + " BASE64", "QUI=\n"));
}

} // namespace

std::map<std::string, std::string> const& damageSamples() {
    static std::map<std::string, std::string> const samples{
        {"smallest", Begin + part("/[Content_Types].xml", "\n") + End},
        {"text", package(part("/a.xml", "<a>\n  one\n</a>\n") + part("/b/c.xml", "<c/>\n\n"))},
        {"header", "Generated; \xC3\xA4ndern erlaubt\nsecond line\n" + package(part("/a.xml", "<a/>\n"))},
        {"header-of-21-lines", headerLines(21) + Begin + part("/[Content_Types].xml", "<Types/>\n") + End},
        {"empty-lines-before-the-parts", "\n\n" + Begin + "\n\r\n" + Opening + End + "anything\n" + Begin},
        {"base64", package(part("/a.bin BASE64", "AAECAwQ=\n") + part("/b.bin BASE64", "QUJD\nREVG\nRw==\n"))},
        {"base64-lines-of-76",
         package(part("/a.bin BASE64", std::string(76, 'B') + "\n" + std::string(8, 'B') + "\n"))},
        {"base64-of-a-marker", package(part("/a.bin BASE64", "X19aS09QQ19QQQ==\n") + part("/b.bin BASE64", "QQ==\n"))},
        {"cr-lf", withCrLf(package(part("/a.xml", "<a>\n</a>\n") + part("/b.bin BASE64", "QUJD\nRA==\n")))},
        {"cr-lf-inside", package(part("/a.xml", "<a>\r\n\r\n</a>\r\n\n") + part("/b.xml", "\r\r\n"))},
        {"empty-parts",
         package(part("/a.xml", "") + part("/b.xml", "\n") + part("/c.bin BASE64", "") + part("/d.bin BASE64", "\n"))},
        {"same-name-twice", package(part("/a.bin BASE64", "QUI=\n") + part("/a.bin BASE64", "Q0Q=\n") +
                                    part("/b.xml", "1\n") + part("/B.xml", "2\n") + part("/b.xml", "3\n"))},
        {"names-in-other-letter-case", Begin + part("/[content_types].xml", "<T/>\n") +
                                           part("/[Content_Types].xml", "<Types/>\n") + part("/_RELS/.rels", "<R/>\n") +
                                           part("/Metadata/b", "1\n") + part("/metadata/A", "2\n") + End},
        {"long-begin-tag", "__ZKOPC_PACKAGE_BEGIN__ V3508k and more " + std::string(60, '+') + "\n" + Opening + End},
        {"begin-tag-alone", "__ZKOPC_PACKAGE_BEGIN__\n" + Opening + part("/a b c", "1\n") + End},
        {"metadata", package(part("/metadata/a.xml", "1\n") + part("/metadata/b.bin BASE64", "QUI=\n") +
                             part("/a.xml", "2\n") + part("/b.xml", "3\n"))},
        {"trash", package(part("/[trash]", "1\n") + part("/[trash]/0001.dat BASE64", "QUI=\n") +
                          part("/a/[trash]", "2\n") + part("/z.xml", "3\n"))},
        {"names-of-all-scripts",
         package(part("/\xC3\xA4.xml", "1\n") + part("/\xE6\x97\xA5/\xE2\x82\xAC.bin BASE64", "QUI=\n") +
                 part("/\xEF\xBF\xBD", "2\n") + part("/\xF0\x9F\x93\x84", "3\n"))},
        {"no-end-line", Begin + Opening + part("/a.xml", "<a/>\n")},
        {"no-line-break-at-the-end", Begin + Opening + part("/a.xml", "<a/>\n") + "__ZKOPC_PACKAGE_END__"},
        {"many-parts", manyParts()},
        {"unsorted", Begin + part("/z.xml", "1\n") + part("/a.xml", "2\n") + Opening + part("/m.xml", "3\n") +
                         part("/metadata/a", "4\n") + part("/b.xml", "5\n") + End},
        {"files-and-folders", package(part("/a BASE64", "QUI=\n") + part("/a/b BASE64", "Q0Q=\n") +
                                      part("/c/../d BASE64", "RUY=\n") + part("/e//f", "1\n"))},
        {"names-without-slash",
         package(part("a BASE64", "QUI=\n") + part("b.xml", "1\n") + part("/c/d BASE64", "Q0Q=\n"))},
        {"name-of-the-working-copy", package(part("/_zkopc_packageCopy.txt BASE64", "QUI=\n") +
                                             part("/_zkopc_packageCopy.txt/a BASE64", "Q0Q=\n"))},
        {"long-names", longNames()},
        {"markers-inside", package(part("/a.xml", " __ZKOPC_PART_BEGIN__ /x\n__ZKOPC_PACKAGE_BEGIN__ x\n"
                                                  "__ZKOPC_PACKAGE_END__x\n__ZKOPC_PACKAGE_END__ \n"))},
    };
    return samples;
}

} // namespace campaigns
