#pragma once

#include <string>

#include <gmock/gmock.h>

#include <opccore/Exception.hpp>

namespace testsupport {

/// Matches a callable that throws `opc::Exception` with exactly this message.
inline auto throwsPackageError(std::string const& message) {
    return ::testing::ThrowsMessage<opc::Exception>(::testing::StrEq(message));
}

/// The error code of the `opc::Exception` that the action throws; fails the test where it throws nothing.
template <class Action>
boost::system::error_code codeThrownBy(Action action) {
    try {
        action();
    } catch (opc::Exception const& failure) {
        return failure.code();
    }
    ADD_FAILURE() << "no opc::Exception was thrown";
    return {};
}

} // namespace testsupport
