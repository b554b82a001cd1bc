#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include <boost/core/noncopyable.hpp>

#include <opccore/IPhysicalPart.hpp>
#include <textpackage/Export.hpp>
#include <textpackage/StringInputStream.hpp>

namespace opc::textpackage {

class TextPackageLightweightReader;

/// A read-only part in memory: filled line by line while the package is scanned, decoded when it is first read.
///
/// Ownership: owns the stream that it hands out.
/// Memory:    the text of its lines, the bytes of its content once it was read, and a copy of those for its stream.
class TEXTPACKAGE_EXPORT MemoryPart : public interfaces::IPhysicalPart, private boost::noncopyable {
public:
    /// `reader` is the owner, of which the part needs nothing; `isBase64` tells that the lines are Base64, each a whole
    /// unit by itself.
    MemoryPart(TextPackageLightweightReader& reader, std::u16string const& name, bool isBase64);

    /// Adds a content line, given without its line break. The text of the part is its lines joined by LF.
    void processLine(std::string const& line);

    std::u16string getName() const override;

    /// Always empty: the text format stores no content types.
    std::u16string getContentType() const override;

    /// The stream that was handed out before, just as it stands, or a new one at the first byte of the content.
    /// Throws `foundation::crypto::utils::Exception` for a line that is no Base64; there is no stream then, and a
    /// second call decodes only the lines after that one.
    interfaces::IPhysicalInputStream* getInputStream() override;

    /// Always null: the part can't be written.
    interfaces::IPhysicalOutputStream* getOutputStream() override;

    /// Closes and destroys the stream that was handed out, if there is one; a later one starts from the first byte.
    void close();

    ~MemoryPart() override;

private:
    std::string decodeText();

    std::u16string name_;
    std::unique_ptr<StringInputStream> inputStream_;
    std::string text_;              // the lines
    std::size_t decodedLength_ = 0; // of the text: where the decoding goes on after a bad line
    std::string bytes_;             // of the content; empty until the first stream
    bool hasLines_ = false;
    bool isBase64_;
};

} // namespace opc::textpackage
