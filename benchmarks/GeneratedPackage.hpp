#pragma once

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <random>
#include <string>
#include <vector>

namespace benchmarks {

/// What a generated package holds, so that whoever reads it can tell whether they got everything.
struct Totals {
    std::uint64_t parts = 0;
    std::uint64_t textBytes = 0;
    std::uint64_t binaryBytes = 0; ///< decoded
};

/// Writes a package of made-up parts, the same in each run: well-formed XML of short elements, and Base64 of bytes
/// without a pattern. Begins with the content types and the package's relationships by itself; the other parts come in
/// the order in which they are added, which should be that of a writer: ascending, without regard to case.
class GeneratedPackage {
public:
    explicit GeneratedPackage(std::ostream& out);

    /// An XML document of about `bytes`, with a line break after each element that fills a line of `lineBytes`.
    void addText(std::string const& name, std::size_t bytes, std::size_t lineBytes);

    /// `bytes` of content, rounded down to whole lines of Base64.
    void addBinary(std::string const& name, std::size_t bytes);

    /// Ends the package.
    Totals finish();

    /// A whole number from `least` to `most`, for sizes that vary.
    std::size_t pick(std::size_t least, std::size_t most);

private:
    void addPart(std::string const& name, std::string const& content, bool isBase64);
    template <class Item>
    Item const& anyOf(std::vector<Item> const& items);
    std::string makeElement();
    std::string makeBase64Line();

    std::ostream& out_;
    std::mt19937_64 random_{20260501};
    std::vector<std::string> elements_;
    std::vector<std::string> base64Lines_;
    Totals totals_;
};

/// One large package: half of it text with long lines, half Base64, in 8 parts each, and a small part at the end.
Totals generateLarge(std::ostream& out, std::size_t bytes);

/// Text with long lines alone, in 16 parts.
Totals generateText(std::ostream& out, std::size_t bytes);

/// Text parts of 64 KiB.
Totals generateSeries(std::ostream& out, std::size_t bytes);

/// Parts of 1 KiB, one in ten of them binary.
Totals generateMany(std::ostream& out, std::size_t parts);

/// As an office program might write it: 300 parts, 10 MiB, each text part one line.
Totals generateOffice(std::ostream& out);

} // namespace benchmarks
