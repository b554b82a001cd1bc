#pragma once

#include <cstdint>

namespace opc::interfaces {

/// What a package is opened for. The values are part of the contract: packages compare them as numbers.
enum class OpenMode : std::uint32_t {
    Read = 0,      ///< An existing package, for reading only.
    Create = 1,    ///< A new package; what stands at its path is neither read nor needed.
    ReadWrite = 2, ///< An existing package, for reading and changing.
};

} // namespace opc::interfaces
