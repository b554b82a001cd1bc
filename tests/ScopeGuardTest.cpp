#include <textpackage/ScopeGuard.hpp>

#include <memory>
#include <stdexcept>
#include <type_traits>
#include <vector>

#include <gmock/gmock.h>

using opc::textpackage::ScopeGuard;
using ::testing::ElementsAre;
using ::testing::StrEq;
using ::testing::ThrowsMessage;

namespace {

TEST(ScopeGuardTest, RunsTheCleanUpOnceAndOnlyWhenItsScopeEnds) {
    int runs = 0;

    {
        ScopeGuard const guard([&] { ++runs; });
        EXPECT_EQ(runs, 0);
    }

    EXPECT_EQ(runs, 1);
}

TEST(ScopeGuardTest, RunsTheCleanUpWhenTheScopeIsLeftByReturn) {
    int runs = 0;
    auto const leaveEarly = [&](bool early) {
        ScopeGuard const guard([&] { ++runs; });
        if (early)
            return 1;
        return 2;
    };

    EXPECT_EQ(leaveEarly(true), 1);

    EXPECT_EQ(runs, 1);
}

TEST(ScopeGuardTest, RunsTheCleanUpBeforeAnExceptionArrives) {
    int runs = 0;
    auto const fail = [&] {
        ScopeGuard const guard([&] { ++runs; });
        throw std::runtime_error("first");
    };

    EXPECT_THAT(fail, ThrowsMessage<std::runtime_error>(StrEq("first")));

    EXPECT_EQ(runs, 1);
}

TEST(ScopeGuardTest, SwallowsAnExceptionFromTheCleanUp) {
    bool wentOn = false;

    {
        ScopeGuard const guard([] { throw std::logic_error("from the clean-up"); });
    }
    wentOn = true;

    EXPECT_TRUE(wentOn);
}

TEST(ScopeGuardTest, SwallowsWhateverTypeTheCleanUpThrows) {
    auto const leaveScope = [] { ScopeGuard const guard([] { throw 7; }); };

    EXPECT_NO_THROW(leaveScope());
}

TEST(ScopeGuardTest, LetsTheFirstExceptionGoOnWhenTheCleanUpThrowsToo) {
    auto const failTwice = [] {
        ScopeGuard const guard([] { throw std::logic_error("second"); });
        throw std::runtime_error("first");
    };

    EXPECT_THAT(failTwice, ThrowsMessage<std::runtime_error>(StrEq("first")));
}

TEST(ScopeGuardTest, RunsGuardsInTheReverseOfTheirOrder) {
    std::vector<int> runs;

    {
        ScopeGuard const outer([&] { runs.push_back(1); });
        ScopeGuard const inner([&] { runs.push_back(2); });
    }

    EXPECT_THAT(runs, ElementsAre(2, 1));
}

TEST(ScopeGuardTest, TakesACleanUpThatCanOnlyBeMoved) {
    int runs = 0;
    auto owned = std::make_unique<int>(5);

    {
        ScopeGuard const guard([&runs, owned = std::move(owned)] { runs += *owned; });
    }

    EXPECT_EQ(runs, 5);
}

TEST(ScopeGuardTest, CanNotBeCopiedSoThatNothingIsCleanedUpTwice) {
    using Guard = ScopeGuard<void (*)()>;

    EXPECT_FALSE(std::is_copy_constructible_v<Guard>);
    EXPECT_FALSE(std::is_copy_assignable_v<Guard>);
}

} // namespace
