#pragma once

#include <iosfwd>

namespace opc::textpackage {

/// Writes all that a stream holds from its position on as padded Base64 in lines of 76 characters, with an LF between
/// them and none after the last. Takes little memory however long the stream is.
/// Throws `foundation::crypto::utils::Exception` "Unable to encode in Base64. Reason=" and the cause where the stream
/// can't be read.
void writeBase64Lines(std::istream& in, std::ostream& out);

} // namespace opc::textpackage
