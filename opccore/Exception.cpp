#include <opccore/Exception.hpp>

namespace opc {

Exception::Exception(std::string const& message, boost::system::error_code code)
    : std::runtime_error(message),
      code_(code) {
}

// Defined here so that the type has one home and is caught by type across library borders.
Exception::~Exception() = default;

boost::system::error_code Exception::code() const {
    return code_;
}

} // namespace opc
