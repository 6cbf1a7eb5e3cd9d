// The feature's power-saving state store: pmDbInit, pmDbWrite and pmDbRead over the device's
// database file in a temporary fake device root.

#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <string>

#include <android-base/strings.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "feature/LogSites.h"
#include "feature/PSMPowerOptFeature.h"
#include "host/PluginHost.h"
#include "host/fakeperf/FakePerf.h"
#include "pmdb/PMDatabase.h"
#include "pmdb/PSMReferenceOutput.h"
#include "tests/support/DeviceTree.h"
#include "tests/support/FeaturePeer.h"
#include "tests/support/LogCapture.h"
#include "tests/support/SqliteProbe.h"
#include "tests/support/TestConfig.h"

namespace {

using pwr::test::LogCapture;
using pwr::test::SqliteProbe;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr char kStoreFile[] = "/data/vendor/pwr/InputPMDB.db";

std::vector<std::string> featureMessages(const LogCapture& log) {
    std::vector<std::string> out;
    for (const std::string& m : log.messages()) {
        if (android::base::StartsWith(m, "PSMPOWEROPT: pmDb")) out.push_back(m);
    }
    return out;
}

class StateStoreTest : public ::testing::Test {
  protected:
    void SetUp() override {
        fakeperf::reset();
        tree.mkdirs("/data/vendor/pwr");
    }

    // A ready feature with the state store opened (or not, if the file cannot be).
    std::unique_ptr<PowerOptFeature> makeFeature(bool debug = true) {
        std::string error;
        auto feature = pwr::host::PluginHost::create("PSMPowerOptFeature",
                                                     pwr::test::minimalConfig(), &error);
        EXPECT_NE(feature, nullptr) << error;
        if (feature == nullptr) return nullptr;
        psm(*feature).pmDbInit();  // the constructor opens it only with deep mode configured
        PSMPowerOptFeatureTestPeer(psm(*feature)).setDebugEnabled(debug);
        return feature;
    }

    static PSMPowerOptFeature& psm(PowerOptFeature& feature) {
        return static_cast<PSMPowerOptFeature&>(feature);
    }

    std::string rowCount() const {
        SqliteProbe probe(tree.hostPath(kStoreFile));
        return probe.scalar("SELECT COUNT(*) FROM PSMPOWEROPT");
    }

    pwr::test::DeviceTree tree;
};

TEST_F(StateStoreTest, InitOpensDeviceFileOnceInWalMode) {
    auto feature = makeFeature();
    ASSERT_NE(feature, nullptr);
    PSMPowerOptFeatureTestPeer peer(psm(*feature));
    PMDatabase<PSMReferenceOutput>* store = peer.store().database();
    ASSERT_NE(store, nullptr);
    EXPECT_EQ(peer.store().status(), 0);
    EXPECT_EQ(store->path(), tree.hostPath(kStoreFile));
    EXPECT_EQ(store->tableName(), "PSMPOWEROPT");

    psm(*feature).pmDbInit();
    EXPECT_EQ(peer.store().database(), store);

    SqliteProbe probe(tree.hostPath(kStoreFile));
    ASSERT_TRUE(probe.ok());
    EXPECT_EQ(probe.scalar("PRAGMA journal_mode"), "wal");
}

TEST_F(StateStoreTest, KeyNeverWrittenReadsZero) {
    auto feature = makeFeature();
    ASSERT_NE(feature, nullptr);
    EXPECT_EQ(psm(*feature).pmDbRead("PSM"), 0);
    EXPECT_EQ(psm(*feature).pmDbRead("PSM"), 0);
}

TEST_F(StateStoreTest, WriteTwiceReadOnceGivesLaterByteAndConsumesBoth) {
    auto feature = makeFeature();
    ASSERT_NE(feature, nullptr);
    LogCapture log;
    psm(*feature).pmDbWrite("vendor.a", '1');
    psm(*feature).pmDbWrite("vendor.a", '7');
    EXPECT_EQ(rowCount(), "2");

    EXPECT_EQ(psm(*feature).pmDbRead("vendor.a"), '7');
    EXPECT_EQ(rowCount(), "0");
    EXPECT_EQ(psm(*feature).pmDbRead("vendor.a"), 0);

    EXPECT_THAT(featureMessages(log),
                ElementsAre(pwr::linePrefix(pwr::site::kDbWritten) +
                                    "Successfully written output to DB, DB "
                                    "Row key name=vendor.a, writing properties 1",
                            pwr::linePrefix(pwr::site::kDbWritten) +
                                    "Successfully written output to DB, DB "
                                    "Row key name=vendor.a, writing properties 7",
                            pwr::linePrefix(pwr::site::kDbReadCounts) +
                                    "ReferenceAlgo::runAlgo (totalCount , "
                                    "readCount) = (2, 2) ",
                            pwr::linePrefix(pwr::site::kDbReadRow) + "Reading properties[0]=1",
                            pwr::linePrefix(pwr::site::kDbReadRow) + "Reading properties[1]=7",
                            pwr::linePrefix(pwr::site::kDbReadCounts) +
                                    "ReferenceAlgo::runAlgo (totalCount , "
                                    "readCount) = (0, 0) "));
}

TEST_F(StateStoreTest, ReadConsumesOnlyItsOwnKey) {
    auto feature = makeFeature();
    ASSERT_NE(feature, nullptr);
    psm(*feature).pmDbWrite("PSM", '1');
    psm(*feature).pmDbWrite("vendor.b", '0');
    EXPECT_EQ(psm(*feature).pmDbRead("PSM"), '1');
    EXPECT_EQ(rowCount(), "1");
    EXPECT_EQ(psm(*feature).pmDbRead("PSM"), 0);
    EXPECT_EQ(psm(*feature).pmDbRead("vendor.b"), '0');
}

TEST_F(StateStoreTest, DebugOffWritesAndReadsSilently) {
    auto feature = makeFeature(/*debug=*/false);
    ASSERT_NE(feature, nullptr);
    LogCapture log;
    psm(*feature).pmDbWrite("PSM", '1');
    EXPECT_EQ(psm(*feature).pmDbRead("PSM"), '1');
    EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(StateStoreTest, MissingDirectoryRunsWithoutStore) {
    tree.remove("/data/vendor/pwr");
    LogCapture log;
    auto feature = makeFeature();
    ASSERT_NE(feature, nullptr);
    PSMPowerOptFeatureTestPeer peer(psm(*feature));
    EXPECT_EQ(peer.store().database(), nullptr);
    EXPECT_EQ(peer.store().status(), -1);
    EXPECT_TRUE(peer.ready());
    // Debugging was off while the store was opened, so the feature said nothing then; with no
    // store, writes and reads stay silent even with debugging on.
    psm(*feature).pmDbWrite("PSM", '1');
    EXPECT_EQ(psm(*feature).pmDbRead("PSM"), 0);
    EXPECT_EQ(log.count("PMDB: openPMdb() 101: ERROR:Db=" + tree.hostPath(kStoreFile) +
                        " sql open failed, err=14\n"),
              1);
    EXPECT_THAT(featureMessages(log), IsEmpty());
    EXPECT_FALSE(std::filesystem::exists(tree.hostPath("/data/vendor/pwr")));
}

TEST_F(StateStoreTest, FailedInitSaysSoWhenDebugging) {
    tree.remove("/data/vendor/pwr");
    std::string error;
    auto feature =
            pwr::host::PluginHost::create("PSMPowerOptFeature", pwr::test::minimalConfig(), &error);
    ASSERT_NE(feature, nullptr) << error;
    PSMPowerOptFeatureTestPeer peer(psm(*feature));
    peer.setDebugEnabled(true);
    LogCapture log;
    psm(*feature).pmDbInit();
    EXPECT_EQ(peer.store().database(), nullptr);
    EXPECT_THAT(featureMessages(log), ElementsAre(pwr::linePrefix(pwr::site::kDbInitFailed) +
                                                  "Error in DB initialization - "
                                                  "createFeatureInputDb -1"));

    // A later init tries again, and succeeds once the directory is there.
    tree.mkdirs("/data/vendor/pwr");
    psm(*feature).pmDbInit();
    EXPECT_NE(peer.store().database(), nullptr);
    EXPECT_EQ(peer.store().status(), 0);
}

TEST_F(StateStoreTest, FileThatIsNotADatabaseIsLeftAloneAndStoreStaysOff) {
    const std::string content = std::string("\x01\x02 not sqlite", 13);
    tree.write(kStoreFile, content);
    LogCapture log;
    auto feature = makeFeature();
    ASSERT_NE(feature, nullptr);
    PSMPowerOptFeatureTestPeer peer(psm(*feature));
    EXPECT_EQ(peer.store().database(), nullptr);
    EXPECT_EQ(peer.store().status(), -1);
    psm(*feature).pmDbWrite("PSM", '1');
    EXPECT_EQ(psm(*feature).pmDbRead("PSM"), 0);
    EXPECT_EQ(log.countContaining("PMDB: createPMdbTables() 124: ERROR:Dbt=PSMPOWEROPT info="), 1);
    EXPECT_EQ(tree.read(kStoreFile), content);
}

TEST_F(StateStoreTest, KeyWithQuoteIsWrittenButNeverReadBack) {
    auto feature = makeFeature(/*debug=*/false);
    ASSERT_NE(feature, nullptr);
    LogCapture log;
    psm(*feature).pmDbWrite("vendor.it's", '1');
    EXPECT_EQ(psm(*feature).pmDbRead("vendor.it's"), 0);
    EXPECT_EQ(rowCount(), "1");
    EXPECT_EQ(log.countContaining("PMDB: readAllocateDR() 142: sql:ERROR:Dbt=PSMPOWEROPT"), 1);
    psm(*feature).pmDbWrite("vendor.fine", '4');
    EXPECT_EQ(psm(*feature).pmDbRead("vendor.fine"), '4');
}

// The value must be on disk when pmDbWrite returns: the child ends abruptly, without running the
// feature's destructor, and a new process reads it back.
TEST_F(StateStoreTest, ValueWrittenInOneProcessIsReadInAnother) {
    const pid_t pid = fork();
    ASSERT_GE(pid, 0) << strerror(errno);
    if (pid == 0) {
        pwr::test::installNullLogger();
        std::string error;
        auto feature = pwr::host::PluginHost::create("PSMPowerOptFeature",
                                                     pwr::test::minimalConfig(), &error);
        if (feature == nullptr) _exit(2);
        auto& f = static_cast<PSMPowerOptFeature&>(*feature);
        f.pmDbInit();
        if (PSMPowerOptFeatureTestPeer(f).store().database() == nullptr) _exit(3);
        f.pmDbWrite("PSM", '1');
        f.pmDbWrite("vendor.restart", '9');
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child status " << status;

    auto feature = makeFeature();
    ASSERT_NE(feature, nullptr);
    EXPECT_EQ(psm(*feature).pmDbRead("vendor.restart"), '9');
    EXPECT_EQ(psm(*feature).pmDbRead("PSM"), '1');
    EXPECT_EQ(psm(*feature).pmDbRead("PSM"), 0);
}

}  // namespace
