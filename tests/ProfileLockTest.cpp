// Profile application: the plain apply/release pair and the one held profile lock.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <thread>

#include "feature/LogSites.h"
#include "feature/PSMPowerOptFeature.h"
#include "host/fakeperf/FakePerf.h"
#include "tests/support/FeaturePeer.h"
#include "tests/support/FeatureSetup.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TestConfig.h"

namespace {

using fakeperf::CallKind;
using pwr::test::LogCapture;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const std::string kTrying =
        pwr::linePrefix(pwr::site::kTryingProfileLock) + "Trying to applyProfileLock.";

class ProfileLockTest : public ::testing::Test {
  protected:
    void SetUp() override {
        fakeperf::reset();
        feature = pwr::test::createFeature(pwr::test::minimalConfig());
        peer = std::make_unique<PSMPowerOptFeatureTestPeer>(*feature);
    }

    std::unique_ptr<PSMPowerOptFeature> feature;
    std::unique_ptr<PSMPowerOptFeatureTestPeer> peer;
};

TEST_F(ProfileLockTest, Apply_TakesFirstListOnlyForever) {
    Profile profile{{1, 2, 3, 4}, {5, 6}, {7, 8}};
    LogCapture log;
    feature->applyProfileLock(profile);
    EXPECT_THAT(log.messages(),
                ElementsAre(kTrying, pwr::linePrefix(pwr::site::kProfileSize) + "Profile size 3",
                            pwr::linePrefix(pwr::site::kProfileArraySize) + " Array size 4"));
    const auto calls = fakeperf::calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].kind, CallKind::LockAcquire);
    EXPECT_EQ(calls[0].handle, 0);
    EXPECT_EQ(calls[0].duration, INT_MAX);
    EXPECT_EQ(calls[0].list, (std::vector<int>{1, 2, 3, 4}));
    EXPECT_EQ(peer->profileLock().held(), calls[0].result);
}

TEST_F(ProfileLockTest, Apply_TwiceTakesOneLock) {
    Profile first{{1, 2}};
    Profile second{{3, 4}};
    feature->applyProfileLock(first);
    const int handle = peer->profileLock().held();
    LogCapture log;
    feature->applyProfileLock(second);
    EXPECT_THAT(log.messages(), ElementsAre(kTrying));
    EXPECT_EQ(peer->profileLock().held(), handle);
    EXPECT_EQ(fakeperf::heldLocks(), (std::map<int, std::vector<int>>{{handle, {1, 2}}}));
}

TEST_F(ProfileLockTest, Apply_EmptyProfileOrEmptyFirstListTakesNothing) {
    Profile none;
    Profile emptyFirst{{}, {1, 2}};
    LogCapture log;
    feature->applyProfileLock(none);
    feature->applyProfileLock(emptyFirst);
    EXPECT_EQ(feature->readAndApplyProfile(emptyFirst, 100), -1);
    EXPECT_THAT(log.messages(),
                ElementsAre(kTrying, pwr::linePrefix(pwr::site::kProfileSize) + "Profile size 0",
                            kTrying, pwr::linePrefix(pwr::site::kProfileSize) + "Profile size 2",
                            pwr::linePrefix(pwr::site::kProfileArraySize) + " Array size 0",
                            pwr::linePrefix(pwr::site::kProfileSize) + "Profile size 2",
                            pwr::linePrefix(pwr::site::kProfileArraySize) + " Array size 0"));
    EXPECT_EQ(peer->profileLock().held(), -1);
    EXPECT_THAT(fakeperf::calls(), IsEmpty());
}

TEST_F(ProfileLockTest, Apply_RefusedLockLoggedAndRetriedNextTime) {
    Profile profile{{1, 2}};
    fakeperf::setAcquireFailure(true, 0);
    LogCapture log;
    feature->applyProfileLock(profile);
    EXPECT_TRUE(log.contains(pwr::linePrefix(pwr::site::kProfileApplyFailed) +
                             "Failed to apply resource, handle = 0"));
    EXPECT_EQ(peer->profileLock().held(), -1);

    fakeperf::setAcquireFailure(false);
    feature->applyProfileLock(profile);
    EXPECT_GE(peer->profileLock().held(), 1);
}

TEST_F(ProfileLockTest, Release_GivesBackHeldLockOnce) {
    Profile profile{{1, 2}};
    feature->applyProfileLock(profile);
    const int handle = peer->profileLock().held();
    LogCapture log;
    feature->releaseProfileLock();
    feature->releaseProfileLock();  // none held: silent
    EXPECT_THAT(log.messages(), ElementsAre(pwr::linePrefix(pwr::site::kReleasingProfile) +
                                            "Releasing "
                                            "profile, handle = " +
                                            std::to_string(handle)));
    EXPECT_EQ(peer->profileLock().held(), -1);
    EXPECT_THAT(fakeperf::heldLocks(), IsEmpty());
    const auto calls = fakeperf::calls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[1].kind, CallKind::LockRelease);
    EXPECT_EQ(calls[1].handle, handle);
}

TEST_F(ProfileLockTest, PlainPair_AppliesAndReleasesGivenHandles) {
    int list[] = {9, 8, 7, 6};
    const int handle = feature->applyProfile(list, 2, 500);
    EXPECT_GE(handle, 1);
    feature->releaseProfile(0);   // 0 is released like any other handle
    feature->releaseProfile(-1);  // nothing
    feature->releaseProfile(handle);
    const auto calls = fakeperf::calls();
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_EQ(calls[0].duration, 500);
    EXPECT_EQ(calls[0].list, (std::vector<int>{9, 8}));
    EXPECT_EQ(calls[1].kind, CallKind::LockRelease);
    EXPECT_EQ(calls[1].handle, 0);
    EXPECT_EQ(calls[2].handle, handle);
    // The held profile lock is not the plain pair's business.
    EXPECT_EQ(peer->profileLock().held(), -1);
}

TEST_F(ProfileLockTest, PlainPair_DiagnosticsOnlyWhenDebugging) {
    int list[] = {1, 2};
    fakeperf::setAcquireFailure(true, -3);
    LogCapture log;
    EXPECT_EQ(feature->applyProfile(list, 2, 10), -3);
    feature->releaseProfile(4);
    EXPECT_THAT(log.messages(), IsEmpty());

    peer->setDebugEnabled(true);
    EXPECT_EQ(feature->applyProfile(list, 2, 10), -3);
    feature->releaseProfile(4);
    EXPECT_THAT(log.messages(),
                ElementsAre(pwr::linePrefix(pwr::site::kApplyFailed) +
                                    "Failed to apply resource, handle = -3",
                            pwr::linePrefix(pwr::site::kReleasingHandle) + "Releasing handle:4"));
}

// Event and timer threads apply and release concurrently: at most one lock is ever held, every
// granted lock is released exactly once, and the feature's handle matches the library's state.
TEST_F(ProfileLockTest, ConcurrentApplyRelease_OneLockNoLostRelease) {
    pwr::test::installNullLogger();
    constexpr int kThreads = 4;
    constexpr int kRounds = 300;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([this, t] {
            Profile profile{{t, t + 100}};
            for (int i = 0; i < kRounds; ++i) {
                feature->applyProfileLock(profile);
                if ((i + t) % 3 != 0) feature->releaseProfileLock();
            }
        });
    }
    for (std::thread& thread : threads) thread.join();

    // Replay the library's call order: it records each call under its own lock, and the feature
    // calls it under profileMutex, so this is the order in which the lock changed hands.
    int held = -1;
    int acquired = 0;
    int released = 0;
    for (const fakeperf::Call& call : fakeperf::calls()) {
        if (call.kind == CallKind::LockAcquire) {
            ASSERT_EQ(held, -1) << "second lock taken while " << held << " was held";
            held = call.result;
            ++acquired;
        } else if (call.kind == CallKind::LockRelease) {
            ASSERT_EQ(call.handle, held) << "release of a lock that is not held";
            held = -1;
            ++released;
        }
    }
    EXPECT_GE(acquired, 1);
    EXPECT_EQ(acquired - released, held == -1 ? 0 : 1);
    EXPECT_EQ(peer->profileLock().held(), held);
    const auto locks = fakeperf::heldLocks();
    if (held == -1) {
        EXPECT_THAT(locks, IsEmpty());
    } else {
        ASSERT_EQ(locks.size(), 1u);
        EXPECT_EQ(locks.begin()->first, held);
    }
}

}  // namespace
