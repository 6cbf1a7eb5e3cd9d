// The performance client binding with the whole library present. The library's absence and its
// missing entry points are tested by the programs under tests/isolated/.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/fakeperf/FakePerf.h"
#include "platform/PowerHelper.h"

namespace {

using fakeperf::CallKind;
using ::testing::IsEmpty;

TEST(PowerHelper, Acquire_AlwaysRequestsNewLockAndReleaseSkipsMinusOne) {
    fakeperf::reset();
    PowerHelper helper;
    int list[] = {0x40C00000, 1, 0x40804000, 0x5DC};
    const int handle = helper.perflockAcquire(5, 1000, list, 4);
    EXPECT_GE(handle, 1);
    const auto calls = fakeperf::calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].kind, CallKind::LockAcquire);
    EXPECT_EQ(calls[0].handle, 0);
    EXPECT_EQ(calls[0].duration, 1000);
    EXPECT_EQ(calls[0].list, (std::vector<int>{0x40C00000, 1, 0x40804000, 0x5DC}));
    EXPECT_EQ(calls[0].result, handle);

    // A release skips -1 only.
    helper.perflockRelease(-1);
    helper.perflockRelease(0);
    const auto released = fakeperf::calls();
    ASSERT_EQ(released.size(), 2u);
    EXPECT_EQ(released[1].kind, CallKind::LockRelease);
    EXPECT_EQ(released[1].handle, 0);
}

TEST(PowerHelper, Hint_PassesResultBackAndRefusesOnlyANegativeDuration) {
    fakeperf::reset();
    PowerHelper helper;
    char app[] = "com.example.game";
    EXPECT_EQ(helper.perfhintEnable(0x1081, app, -1, 2), 0);
    EXPECT_THAT(fakeperf::calls(), IsEmpty());

    fakeperf::setAcquireFailure(true, -9);  // the fake answers hints like acquisitions
    EXPECT_EQ(helper.perfhintEnable(0x1081, app, 0, 2), -9) << "a zero duration is passed on";
    const auto calls = fakeperf::calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].kind, CallKind::Hint);
    EXPECT_EQ(calls[0].hintId, 0x1081);
    EXPECT_EQ(calls[0].app, "com.example.game");
    EXPECT_EQ(calls[0].duration, 0);
    EXPECT_EQ(calls[0].hintType, 2);
}

}  // namespace
