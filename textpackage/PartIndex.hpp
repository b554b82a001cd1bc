#pragma once

#include <cstdint>
#include <functional>
#include <string_view>

#include <textpackage/TextPackageHelpers.hpp>

namespace opc::textpackage {

/// A part and where its content stands: byte offsets from the start of the text, end exclusive. The one line break, LF
/// or CR LF, that ends the last content line is not part of the content.
struct IndexedPart {
    TextPackageHelpers::PartBegin begin;
    std::uint64_t contentBegin = 0;
    std::uint64_t contentEnd = 0;
};

/// Walks the parts of a package text in memory that begins after the package-begin line, and reports each part that
/// ends, at a further part-begin line or the package-end line. Looks at the marker lines alone, so it costs little
/// more than reading the memory. Throws as `TextPackageHelpers::readParts` does.
void indexParts(std::string_view text, std::function<void(IndexedPart const&)> const& onPart);

} // namespace opc::textpackage
