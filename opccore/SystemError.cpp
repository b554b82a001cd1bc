#include <opccore/SystemError.hpp>

#include <cerrno>

#include <opccore/Exception.hpp>

namespace opc::detail {

boost::system::error_code systemCode(int error) {
    return {error, boost::system::generic_category()};
}

void throwSystemError(char const* deed, std::string const& nativePath, int error) {
    auto const code = systemCode(error);
    throw Exception(std::string(deed) + " \"" + nativePath + "\": " + code.message(), code);
}

void throwSystemError(char const* deed, std::string const& nativePath) {
    throwSystemError(deed, nativePath, errno);
}

} // namespace opc::detail
