#pragma once

#include <string>

#include <boost/system/error_code.hpp>

namespace opc::detail {

/// The code of an errno value, in the generic category as everywhere in the contract.
boost::system::error_code systemCode(int error);

/// Throws `opc::Exception` "DEED "PATH": REASON" with the code of `error`, an errno value.
[[noreturn]] void throwSystemError(char const* deed, std::string const& nativePath, int error);

/// The same with the current errno.
[[noreturn]] void throwSystemError(char const* deed, std::string const& nativePath);

} // namespace opc::detail
