#include <textpackage/MemoryPart.hpp>

#include <algorithm>

#include <opccore/Base64.hpp>

namespace opc::textpackage {

MemoryPart::MemoryPart(TextPackageLightweightReader& /*reader*/, std::u16string const& name, bool isBase64)
    : name_(name),
      isBase64_(isBase64) {
}

void MemoryPart::processLine(std::string const& line) {
    if (hasLines_)
        text_ += '\n';
    hasLines_ = true;
    text_ += line;
}

std::u16string MemoryPart::getName() const {
    return name_;
}

std::u16string MemoryPart::getContentType() const {
    return {};
}

interfaces::IPhysicalInputStream* MemoryPart::getInputStream() {
    if (inputStream_)
        return inputStream_.get();
    if (bytes_.empty())
        bytes_ = isBase64_ ? decodeText() : text_;
    inputStream_ = std::make_unique<StringInputStream>(bytes_);
    return inputStream_.get();
}

interfaces::IPhysicalOutputStream* MemoryPart::getOutputStream() {
    return nullptr;
}

void MemoryPart::close() {
    if (!inputStream_)
        return;
    inputStream_->close();
    inputStream_.reset();
}

MemoryPart::~MemoryPart() {
    close();
}

std::string MemoryPart::decodeText() {
    std::string bytes;
    auto next = decodedLength_;
    try {
        while (next < text_.size()) {
            auto const end = std::min(text_.find('\n', next), text_.size());
            auto const line = text_.substr(next, end - next);
            next = end + 1;
            auto const decoded = foundation::crypto::utils::base64Decode(line);
            bytes.append(reinterpret_cast<char const*>(decoded.data()), decoded.size());
        }
    } catch (foundation::crypto::utils::Exception const&) {
        decodedLength_ = next; // behind the bad line: what stood before it is gone, and that is meant
        throw;
    }
    decodedLength_ = next;
    return bytes;
}

} // namespace opc::textpackage
