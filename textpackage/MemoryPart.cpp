#include <textpackage/MemoryPart.hpp>

#include <opccore/Base64.hpp>

namespace opc::textpackage {

MemoryPart::MemoryPart(TextPackageLightweightReader& /*reader*/, std::u16string const& name, bool isBase64)
    : name_(name),
      isBase64_(isBase64) {
}

void MemoryPart::processLine(std::string const& line) {
    if (hasLines_)
        text_ << '\n';
    hasLines_ = true;
    text_ << line;
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
        bytes_ = isBase64_ ? decodeText() : text_.str();
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
    std::string line;
    while (std::getline(text_, line)) {
        auto const decoded = foundation::crypto::utils::base64Decode(line);
        bytes.append(decoded.begin(), decoded.end());
    }
    return bytes;
}

} // namespace opc::textpackage
