#pragma once

#include <string>

#include <opccore/Export.hpp>

namespace opc {

/// UTF-8 to UTF-16. Well-formed text survives the round trip through `detail::toUTF8String` exactly.
/// With `strict`, ill-formed text (overlong forms, surrogates, truncated sequences, bytes that never occur) throws
/// `opc::Exception` "Ill-formed UTF-8 at byte N of "TEXT"" (N counted from 0); without it each ill-formed sequence
/// becomes U+FFFD.
OPCCORE_EXPORT std::u16string toString(std::string const& text, bool strict);

/// A path in the 8-bit form for messages, in UTF-8; never fails: a lone surrogate or a NUL becomes U+FFFD.
OPCCORE_EXPORT std::string toUDEString(std::u16string const& path);

namespace detail {

/// UTF-16 to UTF-8. With `strict`, a lone surrogate throws `opc::Exception`
/// "Ill-formed UTF-16 at unit N of "TEXT"" (N counted from 0); without it each becomes U+FFFD.
OPCCORE_EXPORT std::string toUTF8String(std::u16string const& text, bool strict);

/// The operating system's form of a path: UTF-8, each component within the 255 bytes that file systems take. A
/// longer component becomes its head, "~" and a hash of the whole of it, the same way everywhere. A lone surrogate
/// (a cut may fall inside a pair) is encoded as three bytes of its own. Idempotent for what it returns.
/// Throws `opc::Exception` "A path must not hold NUL: ..." for a path that the system would cut short.
OPCCORE_EXPORT std::string makeNativePath(std::u16string const& path);

} // namespace detail

} // namespace opc
