#include <textpackage/PartIndex.hpp>

#include <algorithm>
#include <optional>

#include <textpackage/PartScanner.hpp>
#include <textpackage/findMarkerLine.hpp>

namespace opc::textpackage {

namespace {

/// The lines of a text in memory, one after the other.
class Lines {
public:
    explicit Lines(std::string_view text) : text_(text) {}

    /// Moves to the next line; false at the end of the text.
    bool next() { return moveTo(nextBegin_); }

    /// Moves to the next line that begins as the markers do; false where there is none.
    bool nextMarker() {
        if (text_.compare(nextBegin_, PartScanner::markerBeginning.size(), PartScanner::markerBeginning) == 0)
            return moveTo(nextBegin_);
        auto const found = findMarkerLine(text_.substr(nextBegin_));
        if (found == std::string_view::npos)
            return false;
        return moveTo(nextBegin_ + found);
    }

    std::string_view line() const { return text_.substr(begin_, end_ - begin_); }
    std::size_t begin() const { return begin_; }         ///< of the line
    std::size_t nextBegin() const { return nextBegin_; } ///< of the line after it

private:
    bool moveTo(std::size_t begin) {
        if (begin == text_.size())
            return false;
        begin_ = begin;
        end_ = std::min(text_.find('\n', begin), text_.size());
        nextBegin_ = std::min(end_ + 1, text_.size());
        return true;
    }

    std::string_view text_;
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
    std::size_t nextBegin_ = 0;
};

/// Where content that begins at `begin` ends, `lineEnd` being the offset after its last line.
std::uint64_t withoutLastLineBreak(std::string_view text, std::uint64_t begin, std::uint64_t lineEnd) {
    if (lineEnd == begin)
        return begin; // no content line
    auto const lineBreak = lineEnd - 1;
    return lineBreak > begin && text[lineBreak - 1] == '\r' ? lineBreak - 1 : lineBreak;
}

} // namespace

void indexParts(std::string_view text, std::function<void(IndexedPart const&)> const& onPart) {
    Lines lines(text);
    std::optional<IndexedPart> part;
    PartScanner scanner(
        [&](TextPackageHelpers::PartBegin const& partBegin) {
            part = IndexedPart{partBegin, lines.nextBegin(), lines.nextBegin()};
        },
        [&] {
            if (part) { // else the package ends before its first part
                part->contentEnd = withoutLastLineBreak(text, part->contentBegin, lines.begin());
                onPart(*part);
            }
            return true;
        },
        [](std::string_view /*line*/) {});
    while ((scanner.isInPart() ? lines.nextMarker() : lines.next()) && scanner.take(lines.line())) {
    }
}

} // namespace opc::textpackage
