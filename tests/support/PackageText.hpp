#pragma once

#include <string>
#include <vector>

#include <opccore/IPhysicalInputStream.hpp>

namespace testsupport {

/// One part as it stands in a package file.
struct PartText {
    std::string name;      ///< in UTF-8
    std::string content;   ///< the bytes in the file, without the line break that ends them
    bool isBase64 = false; ///< the begin line carries the flag; `content` is Base64 lines then
};

/// A whole package file, its parts in the order given. `header` is a header text: it and a line break come first,
/// where it is not empty.
std::string packageText(std::vector<PartText> const& parts, std::string const& header = "");

/// The two parts that every package begins with, and one more that sorts first among the ordinary parts
/// ("/[Content_Types].xml", "/_rels/.rels", "/a.xml"), each with a line of content; `more` follows.
std::vector<PartText> openingParts(std::vector<PartText> const& more = {});

/// `count` lines, "header line 1" and so on, joined by LF.
std::string headerOfLines(int count);

/// The text with CR LF for each LF.
std::string withCrLf(std::string const& text);

/// The offset of the byte after the line break that ends the `count`-th line.
long offsetAfterLine(std::string const& text, int count);

/// What the stream still gives, from where it stands.
std::string readAll(opc::interfaces::IPhysicalInputStream& stream);

} // namespace testsupport
