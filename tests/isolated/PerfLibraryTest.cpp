// The feature and its performance binding when "libvyr-perfd-client.so" is absent or lacks an
// entry point. The binding is made once per process, so this file is built into one program per
// state; none of them links the fake library:
//   PWR_FAKEPERF_VARIANT unset: the library cannot be found;
//   PWR_FAKEPERF_VARIANT set: that variant of the fake library (without "perf_hint" when
//   PWR_PERF_WITHOUT_HINT is set, else without "perf_get_feedback") is loaded by path, with
//   global symbols, before anything binds, and its control interface is reached through dlsym.

#include <dlfcn.h>

#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "feature/LogSites.h"
#include "feature/PSMPowerOptFeature.h"
#include "host/fakeperf/FakePerf.h"
#include "platform/PlatformLogSites.h"
#include "platform/PowerHelper.h"
#include "platform/PowerOptClassifier.h"
#include "tests/support/FeaturePeer.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TestConfig.h"

namespace {

using pwr::test::LogCapture;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

const std::string kClassifierMissing =
        pwr::linePrefix(pwr::site::kClassifierMissing) + "mPowerOptClassifier is nullptr !!";

#ifndef PWR_FAKEPERF_VARIANT

const std::string kHelperOpen =
        pwr::linePrefix(pwr::site::kPerfLibMissing) + "Unable to open perf lib: ";
const std::string kClassifierOpen =
        pwr::linePrefix(pwr::site::kClassifierLibMissing) + "Unable to open perf lib: ";

TEST(PerfLibraryAbsent, PowerHelper_OneMessageAndNoActuation) {
    LogCapture log;
    PowerHelper helper;
    const auto messages = log.messages();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_THAT(messages[0], StartsWith(kHelperOpen));
    EXPECT_THAT(messages[0], HasSubstr("libvyr-perfd-client.so"));  // the loader's reason
    ASSERT_EQ(PowerHelper::perf_handle, nullptr);
    EXPECT_EQ(PowerHelper::perflock_acq, nullptr);
    EXPECT_EQ(PowerHelper::perflock_rel, nullptr);
    EXPECT_EQ(PowerHelper::perflock_hint, nullptr);

    log.clear();
    int list[] = {1, 2};
    char app[] = "com.example.game";
    EXPECT_EQ(helper.perflockAcquire(0, 100, list, 2), -1);
    EXPECT_EQ(helper.perfhintEnable(0x1081, app, 10, 1), 0);
    helper.perflockRelease(3);
    EXPECT_THAT(log.messages(), IsEmpty());

    EXPECT_EQ(PowerOptClassifier::Create(), nullptr);
    EXPECT_THAT(log.messages(), ElementsAre(StartsWith(kClassifierOpen)));
}

TEST(PerfLibraryAbsent, Feature_NotReadyAndQuiet) {
    LogCapture log;
    auto feature = pwr::test::createFeature(pwr::test::minimalConfig());
    PSMPowerOptFeatureTestPeer peer(*feature);
    EXPECT_FALSE(peer.ready());
    EXPECT_THAT(log.messages(), ElementsAre(StartsWith(kHelperOpen), StartsWith(kClassifierOpen),
                                            kClassifierMissing));

    // Without a classifier every question answers no, silently, even when debugging.
    log.clear();
    peer.setDebugEnabled(true);
    EXPECT_FALSE(feature->isGame("com.example.game"));
    EXPECT_FALSE(feature->isPSMType("com.example.game"));
    EXPECT_FALSE(feature->isBrowser("com.example.game"));
    feature->sendEvents(pwr::test::event(0x15E0, "com.example.game", 0x81));
    feature->sendEvents(pwr::test::event(0x1001, "com.example.game"));
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST(PerfLibraryAbsent, ProfileLock_FailureLoggedEveryTime) {
    auto feature = pwr::test::createFeature(pwr::test::minimalConfig());
    PSMPowerOptFeatureTestPeer peer(*feature);
    Profile profile{{1, 2}};
    LogCapture log;
    feature->applyProfileLock(profile);
    feature->applyProfileLock(profile);
    EXPECT_EQ(log.count(pwr::linePrefix(pwr::site::kProfileApplyFailed) +
                        "Failed to apply resource, handle = -1"),
              2);
    EXPECT_EQ(peer.profileLock().held(), -1);
    int list[] = {1, 2};
    EXPECT_EQ(feature->applyProfile(list, 2, 10), -1);
    feature->releaseProfileLock();
    EXPECT_EQ(log.countContaining("Releasing"), 0);
}

#else

void* variant() {
    static void* handle = [] {
        void* h = dlopen(PWR_FAKEPERF_VARIANT, RTLD_NOW | RTLD_GLOBAL);
        if (h == nullptr) throw std::runtime_error(dlerror());
        return h;
    }();
    return handle;
}

// An entry point of the variant's control interface, by its mangled name.
template <typename Fn>
Fn control(const char* symbol) {
    void* sym = dlsym(variant(), symbol);
    if (sym == nullptr) throw std::runtime_error(std::string("no ") + symbol);
    return reinterpret_cast<Fn>(sym);
}

class PreloadVariant : public ::testing::Environment {
  public:
    void SetUp() override { variant(); }
};
const auto* const gPreload = ::testing::AddGlobalTestEnvironment(new PreloadVariant());

#ifdef PWR_PERF_WITHOUT_HINT

std::map<int, std::vector<int> > heldLocks() {
    return control<std::map<int, std::vector<int> > (*)()>("_ZN8fakeperf9heldLocksEv")();
}

TEST(PerfLibraryWithoutHint, PowerHelper_OnlyHintMissing) {
    LogCapture log;
    PowerHelper helper;
    EXPECT_THAT(log.messages(), ElementsAre(pwr::linePrefix(pwr::site::kPerfHintMissing) +
                                            "Unable to get perflock_hint handle"));
    EXPECT_EQ(PowerHelper::perflock_hint, nullptr);
    char app[] = "com.example.game";
    EXPECT_EQ(helper.perfhintEnable(0x1081, app, 10, 1), 0);

    // Locks still work.
    int list[] = {1, 2, 3, 4};
    const int handle = helper.perflockAcquire(0, 100, list, 4);
    ASSERT_GE(handle, 1);
    EXPECT_EQ(heldLocks().count(handle), 1u);
    helper.perflockRelease(handle);
    EXPECT_EQ(heldLocks().count(handle), 0u);
}

TEST(PerfLibraryWithoutHint, Feature_ReadyAndTakesProfileLocks) {
    auto feature = pwr::test::createFeature(pwr::test::minimalConfig());
    PSMPowerOptFeatureTestPeer peer(*feature);
    ASSERT_TRUE(peer.ready());
    feature->sendEvents(pwr::test::event(0x15E0, "com.example.app", 0x81));
    const int handle = peer.profileLock().held();
    ASSERT_GE(handle, 1);
    EXPECT_EQ(heldLocks().at(handle), peer.settings().mLightModeProfile[0]);
    feature->releaseProfileLock();
    EXPECT_THAT(heldLocks(), IsEmpty());
}

#else

const std::string kNoFeedback =
        pwr::linePrefix(pwr::site::kClassifierEntryMissing) + "Unable to get perf_get_feedback: ";

TEST(PerfLibraryWithoutFeedback, Classifier_CreateFailsWithLoaderReason) {
    LogCapture log;
    EXPECT_EQ(PowerOptClassifier::Create(), nullptr);
    EXPECT_THAT(log.messages(),
                ElementsAre(AllOf(StartsWith(kNoFeedback), HasSubstr("undefined symbol"))));
}

TEST(PerfLibraryWithoutFeedback, Feature_NotReadyButLocksBound) {
    LogCapture log;
    auto feature = pwr::test::createFeature(pwr::test::minimalConfig());
    PSMPowerOptFeatureTestPeer peer(*feature);
    EXPECT_FALSE(peer.ready());
    EXPECT_THAT(log.messages(), ElementsAre(StartsWith(kNoFeedback), kClassifierMissing));
    // The helper's own binding is complete.
    EXPECT_NE(PowerHelper::perflock_acq, nullptr);
    EXPECT_NE(PowerHelper::perflock_rel, nullptr);
    EXPECT_NE(PowerHelper::perflock_hint, nullptr);

    log.clear();
    feature->sendEvents(pwr::test::event(0x15E0, "com.example.app", 0x81));
    EXPECT_THAT(log.messages(), IsEmpty());
    const auto calls = control<std::vector<fakeperf::Call> (*)()>("_ZN8fakeperf5callsEv")();
    EXPECT_THAT(calls, IsEmpty());
}

#endif
#endif

}  // namespace
