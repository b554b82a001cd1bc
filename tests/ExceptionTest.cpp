#include <stdexcept>
#include <string>
#include <type_traits>
#include <typeinfo>

#include <gmock/gmock.h>

#include <opccore/Base64.hpp>
#include <opccore/Exception.hpp>
#include <opccore/LocalFileSystemOps.hpp>
#include <opccore/StringConversion.hpp>

namespace {

using boost::system::error_code;
using foundation::crypto::utils::base64Decode;
using Base64Exception = foundation::crypto::utils::Exception;

/// Runs the action and hands what it throws, caught by reference to the base that every handler may know, to `check`.
template <class Action, class Check>
void inspectThrown(Action action, Check check) {
    try {
        action();
    } catch (std::runtime_error const& failure) {
        return check(failure);
    }
    ADD_FAILURE() << "nothing was thrown";
}

TEST(Exception, CarriesItsMessageAndAnEmptyCodeUnlessOneIsGiven) {
    opc::Exception const failure("Package is not open");

    EXPECT_STREQ(failure.what(), "Package is not open");
    EXPECT_EQ(failure.code(), error_code());
    EXPECT_FALSE(failure.code());
}

TEST(Exception, CarriesTheCodeThatItIsGiven) {
    error_code const code(2, boost::system::generic_category());

    opc::Exception const failure("Could not open", code);

    EXPECT_STREQ(failure.what(), "Could not open"); // the code adds nothing to the message
    EXPECT_EQ(failure.code(), code);
    EXPECT_EQ(failure.code(), boost::system::errc::no_such_file_or_directory);
}

TEST(Exception, KeepsMessageAndCodeInACopyThatOutlivesIt) {
    opc::Exception copy("");
    {
        opc::Exception const original(std::string(1000, 'x'), {5, boost::system::generic_category()});
        copy = original;
    }

    EXPECT_EQ(copy.what(), std::string(1000, 'x'));
    EXPECT_EQ(copy.code(), boost::system::errc::io_error);
}

TEST(Exception, IsARuntimeErrorWhoseCopiesDoNotThrow) {
    EXPECT_TRUE((std::is_base_of_v<std::runtime_error, opc::Exception>));
    EXPECT_TRUE(std::is_nothrow_copy_constructible_v<opc::Exception>);
    EXPECT_TRUE((std::is_base_of_v<std::runtime_error, Base64Exception>));
    EXPECT_TRUE(std::is_nothrow_copy_constructible_v<Base64Exception>);
    EXPECT_FALSE((std::is_base_of_v<opc::Exception, Base64Exception>));
}

TEST(Exception, IsCaughtByTypeAcrossTheLibraryBorder) {
    auto const fail = [] { opc::LocalFileSystemOps().createInputStream(u"/missing/file", 12); };

    EXPECT_THROW(fail(), opc::Exception);
    inspectThrown(fail, [](std::runtime_error const& failure) {
        EXPECT_EQ(typeid(failure), typeid(opc::Exception));
        ASSERT_NE(dynamic_cast<opc::Exception const*>(&failure), nullptr);
        EXPECT_STREQ(failure.what(), "Could not open \"/missing/file\": No such file or directory");
        EXPECT_EQ(dynamic_cast<opc::Exception const&>(failure).code(),
                  error_code(2, boost::system::generic_category()));
    });
}

TEST(Exception, HasAnEmptyCodeWhereNoSystemCallFailed) {
    inspectThrown([] { opc::toString("\xFF", true); },
                  [](std::runtime_error const& failure) {
                      ASSERT_NE(dynamic_cast<opc::Exception const*>(&failure), nullptr);
                      EXPECT_EQ(dynamic_cast<opc::Exception const&>(failure).code(), error_code());
                  });
}

TEST(Base64ExceptionType, CarriesItsMessage) {
    EXPECT_STREQ(Base64Exception("Unable to encode in Base64. Reason=full").what(),
                 "Unable to encode in Base64. Reason=full");
}

TEST(Base64ExceptionType, IsCaughtByTypeAcrossTheLibraryBorder) {
    EXPECT_THROW(base64Decode("?"), Base64Exception);
    inspectThrown([] { base64Decode("?"); },
                  [](std::runtime_error const& failure) { EXPECT_EQ(typeid(failure), typeid(Base64Exception)); });
}

} // namespace
