// The one held profile lock, and the plain apply and release of a resource list.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <map>
#include <thread>

#include "tests/support/FeatureTest.h"

namespace {

using fakeperf::CallKind;
using pwr::test::line;
using pwr::test::lines;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
namespace site = pwr::site;

const std::string kTrying = line(site::kTryingProfileLock, "Trying to applyProfileLock.");
std::string size(int n) {
    return line(site::kProfileSize, "Profile size " + std::to_string(n));
}
std::string arraySize(int n) {
    return line(site::kProfileArraySize, " Array size " + std::to_string(n));
}

class ProfileLockTest : public pwr::test::FeatureTest {
  protected:
    void SetUp() override {
        feature = pwr::test::createFeature(pwr::test::minimalConfig());
        log.clear();
    }
    int held() { return PSMPowerOptFeatureTestPeer(*feature).profileLock().held(); }

    std::unique_ptr<PSMPowerOptFeature> feature;
};

// Profiles applied in turn: only the first list of a profile is acquired, for ever, and only
// while no lock is held; an empty profile or first list acquires nothing, a refused lock is
// logged and tried again next time.
TEST_F(ProfileLockTest, ApplyHoldsAtMostTheFirstListOfOneProfile) {
    const struct {
        Profile profile;
        int refuseWith;  // 1: granted
        std::vector<std::string> lines;
        std::vector<int> acquired;  // the list acquired, if any
    } cases[] = {
            {Profile{}, 1, lines(kTrying, size(0)), {}},
            {Profile{{}, {1, 2}}, 1, lines(kTrying, size(2), arraySize(0)), {}},
            {Profile{{1, 2}},
             0,
             lines(kTrying, size(1), arraySize(2),
                   line(site::kProfileApplyFailed, "Failed to apply resource, handle = 0")),
             {1, 2}},
            {Profile{{1, 2, 3, 4}, {5, 6}}, 1, lines(kTrying, size(2), arraySize(4)), {1, 2, 3, 4}},
            {Profile{{7, 8}}, 1, lines(kTrying), {}},  // a lock is held already
    };
    for (const auto& c : cases) {
        log.clear();
        fakeperf::setAcquireFailure(c.refuseWith != 1, c.refuseWith);
        const size_t before = fakeperf::calls().size();
        Profile profile = c.profile;
        feature->applyProfileLock(profile);
        EXPECT_EQ(log.messages(), c.lines);
        const auto calls = fakeperf::calls();
        ASSERT_EQ(calls.size(), before + (c.acquired.empty() ? 0 : 1));
        if (c.acquired.empty()) continue;
        EXPECT_EQ(calls.back().kind, CallKind::LockAcquire);
        EXPECT_EQ(calls.back().handle, 0);
        EXPECT_EQ(calls.back().duration, INT_MAX);
        EXPECT_EQ(calls.back().list, c.acquired);
        EXPECT_EQ(held(), c.refuseWith == 1 ? calls.back().result : -1);
    }
    const int handle = held();
    EXPECT_EQ(fakeperf::heldLocks(), (std::map<int, std::vector<int>>{{handle, {1, 2, 3, 4}}}));
    log.clear();
    feature->releaseProfileLock();
    feature->releaseProfileLock();  // none held: silent
    EXPECT_THAT(log.messages(),
                ElementsAre(line(site::kReleasingProfile,
                                 "Releasing profile, handle = " + std::to_string(handle))));
    EXPECT_EQ(held(), -1);
    EXPECT_THAT(fakeperf::heldLocks(), IsEmpty());
    EXPECT_EQ(pwr::test::callsOf(CallKind::LockRelease).size(), 1u);
}

// The plain pair takes the list and duration given and releases any handle but -1 (0
// included); it leaves the held profile lock alone and speaks only when debugging.
TEST_F(ProfileLockTest, ThePlainPairAppliesAndReleasesGivenHandles) {
    int list[] = {9, 8, 7, 6};
    const int handle = feature->applyProfile(list, 2, 500);
    EXPECT_GE(handle, 1);
    feature->releaseProfile(0);
    feature->releaseProfile(-1);
    feature->releaseProfile(handle);
    const auto calls = fakeperf::calls();
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_EQ(calls[0].duration, 500);
    EXPECT_EQ(calls[0].list, (std::vector<int>{9, 8}));
    EXPECT_EQ(calls[1].handle, 0);
    EXPECT_EQ(calls[2].handle, handle);
    EXPECT_EQ(held(), -1);
    EXPECT_THAT(log.messages(), IsEmpty());

    fakeperf::setAcquireFailure(true, -3);
    PSMPowerOptFeatureTestPeer(*feature).setDebugEnabled(true);
    EXPECT_EQ(feature->applyProfile(list, 2, 10), -3);
    feature->releaseProfile(4);
    EXPECT_THAT(log.messages(),
                ElementsAre(line(site::kApplyFailed, "Failed to apply resource, handle = -3"),
                            line(site::kReleasingHandle, "Releasing handle:4")));
}

// Event and timer threads apply and release concurrently: at most one lock is ever held, every
// granted lock is released exactly once, and the feature's handle matches the library's state.
TEST_F(ProfileLockTest, ConcurrentApplyAndReleaseHoldOneLockAndLoseNoRelease) {
    pwr::test::installNullLogger();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([this, t] {
            Profile profile{{t, t + 100}};
            for (int i = 0; i < 300; ++i) {
                feature->applyProfileLock(profile);
                if ((i + t) % 3 != 0) feature->releaseProfileLock();
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    // The library records each call under its own lock, and the feature calls it under its
    // profile mutex, so this is the order in which the lock changed hands.
    int holder = -1;
    for (const fakeperf::Call& call : fakeperf::calls()) {
        if (call.kind == CallKind::LockAcquire) {
            ASSERT_EQ(holder, -1) << "second lock taken while " << holder << " was held";
            holder = call.result;
        } else if (call.kind == CallKind::LockRelease) {
            ASSERT_EQ(call.handle, holder) << "release of a lock that is not held";
            holder = -1;
        }
    }
    EXPECT_EQ(held(), holder);
    EXPECT_EQ(fakeperf::heldLocks().size(), holder == -1 ? 0u : 1u);
}

}  // namespace
