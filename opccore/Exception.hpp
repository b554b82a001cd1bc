#pragma once

#include <stdexcept>
#include <string>

#include <boost/system/error_code.hpp>

#include <opccore/Export.hpp>

namespace opc {

/// Every failure that the core and its packages report themselves.
class OPCCORE_EXPORT Exception : public std::runtime_error {
public:
    /// `message` is what `what()` returns; `code` is the cause where the system gave one, else empty (success).
    explicit Exception(std::string const& message, boost::system::error_code code = {});
    Exception(Exception const&) = default;
    Exception& operator=(Exception const&) = default;
    ~Exception() override;

    boost::system::error_code code() const;

private:
    boost::system::error_code code_;
};

} // namespace opc
