// Base64: the decoder against a second one, and what the library writes against it.

#include <sstream>
#include <string>

#include <fuzz/support/InputReader.hpp>
#include <fuzz/support/plainText.hpp>
#include <fuzz/support/require.hpp>
#include <opccore/Base64.hpp>
#include <textpackage/Base64Encoder.hpp>

namespace {

/// What the library's decoder gives; none where it refuses the text.
std::optional<std::string> decoded(std::string const& text) {
    std::optional<std::string> bytes;
    auto const fault = fuzz::failureOf<foundation::crypto::utils::Exception>([&] {
        auto const result = foundation::crypto::utils::base64Decode(text);
        bytes.emplace(result.begin(), result.end());
    });
    fuzz::require(fault.empty() || fault.rfind("Unable to decode Base64: ", 0) == 0, "a failure says what it is");
    return bytes;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::string const bytes(fuzz::asText(data, size));

    fuzz::require(decoded(bytes) == fuzz::base64Bytes(bytes), "both decoders say the same");

    std::istringstream in(bytes);
    std::ostringstream out;
    opc::textpackage::writeBase64Lines(in, out);
    fuzz::require(out.str() == fuzz::base64LinesOf(bytes), "the encoder writes padded lines of 76 characters");
    fuzz::require(decoded(out.str()) == bytes, "what was encoded is decoded");
    return 0;
}
