#include <atomic>
#include <thread>

#include <gtest/gtest.h>

#include "AccessGate.h"
#include "wait_for.h"

namespace {

TEST(AccessGate, LetsUsersInUntilItIsClosed) {
    AccessGate gate;
    {
        const AccessGate::Pass pass(gate);
        const AccessGate::Pass again(gate);
        EXPECT_TRUE(pass);
        EXPECT_TRUE(again);
    }
    gate.Close();
    const AccessGate::Pass late(gate);
    EXPECT_FALSE(late);
}

TEST(AccessGate, ClosingWaitsForWhoIsInside) {
    AccessGate gate;
    auto pass = std::make_unique<AccessGate::Pass>(gate);
    std::atomic<bool> closed{false};
    std::thread closer([&] {
        gate.Close();
        closed = true;
    });
    // Being refused shows that the closing has begun.
    ASSERT_TRUE(kelo::test::WaitFor([&] { return !AccessGate::Pass(gate); }));
    EXPECT_FALSE(closed);
    pass.reset();
    closer.join();
    EXPECT_TRUE(closed);
}

}  // namespace
