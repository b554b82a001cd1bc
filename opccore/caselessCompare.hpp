#pragma once

#include <string>

#include <opccore/Export.hpp>

namespace opc {

/// Three-way comparison without regard to the case of ASCII letters, which count as lower case; every other code
/// unit counts as it is. Negative, zero or positive, as the first name sorts before, with or after the second.
OPCCORE_EXPORT int caselessCompare(std::u16string const& first, std::u16string const& second);

} // namespace opc
