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
    while (decodedLength_ < text_.size()) {
        auto const begin = decodedLength_;
        auto const end = std::min(text_.find('\n', begin), text_.size());
        decodedLength_ = end + 1; // before the line can turn out to be bad
        auto const decoded = foundation::crypto::utils::base64Decode(text_.substr(begin, end - begin));
        bytes.append(decoded.begin(), decoded.end());
    }
    return bytes;
}

} // namespace opc::textpackage
