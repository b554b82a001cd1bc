#pragma once

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>

#include <textpackage/Export.hpp>

/// The text package format: its markers, and the scanner that both package classes read it with.
///
/// The scanner works line by line, never seeks, and leaves the stream right after the last line that it took, so that
/// a callback may ask the stream for its position (which `tellg` refuses to tell after a last line without an LF).
/// Exceptions from a callback pass through unchanged, and an empty callback that is needed throws
/// `std::bad_function_call`. After a failure the stream's position is unspecified. Threads: reentrant.
namespace opc::textpackage::TextPackageHelpers {

/// What a part-begin line says.
struct PartBegin {
    std::u16string name;   ///< as it stands in the line, an empty name included
    bool isBase64 = false; ///< the content is Base64 lines
};

/// The most line breaks that a header set through `TextFilePhysicalPackage::setTextFileHeader` may have: 20.
TEXTPACKAGE_EXPORT std::int32_t getMaximumHeaderLines();

/// "__ZKOPC_PACKAGE_BEGIN__". Lives until the process exits.
TEXTPACKAGE_EXPORT std::string const& getPackageBegin();

/// "__ZKOPC_PART_BEGIN__". Lives until the process exits.
TEXTPACKAGE_EXPORT std::string const& getPartSeparator();

/// "__ZKOPC_PACKAGE_END__". Lives until the process exits.
TEXTPACKAGE_EXPORT std::string const& getPackageEnd();

/// Passes over the header: takes lines up to and with the first that begins with the package-begin marker, and hands
/// each line before it to `onHeaderLine`, as read (without its LF, with its CR).
/// Throws `opc::Exception`, with an empty code,
/// - "Reached end of file without finding ZKOPC_PACKAGE_BEGIN marker" at the end of the input;
/// - "Didn't find ZKOPC_PACKAGE_BEGIN marker" when 22 lines, and none of them the begin line, were read.
TEXTPACKAGE_EXPORT void findPackageBeginMarker(std::istream& stream,
                                               std::function<void(std::string const&)> onHeaderLine);

/// Walks the parts of a stream that stands after its package-begin line, up to and with the package-end line.
/// - `onPartBegin` is called at each part-begin line.
/// - `onPartEnd` is called before each further part-begin line, where false stops the scan at once (the line is taken
///   but not reported), and at the package-end line, even if no part is open, where its result is ignored.
/// - `onContentLine` gets each line of an open part, without its LF and without one CR before that.
/// The end of the input ends the scan without an error, and without `onPartEnd` for the part that is open.
/// Throws `opc::Exception` "Didn't find ZKOPC_PART_BEGIN marker", with an empty code, for a line before the first
/// part that is not empty; `std::out_of_range` for a part-begin line with nothing after its marker; and what
/// `opc::toString` throws for a name in ill-formed UTF-8.
TEXTPACKAGE_EXPORT void readParts(std::istream& stream, std::function<void(PartBegin const&)> onPartBegin,
                                  std::function<bool()> onPartEnd,
                                  std::function<void(std::string const&)> onContentLine);

} // namespace opc::textpackage::TextPackageHelpers
