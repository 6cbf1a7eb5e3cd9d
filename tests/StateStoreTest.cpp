// The feature's power-saving state store: pmDbInit, pmDbWrite and pmDbRead over the device's
// database file in a temporary fake device root.

#include <string>

#include <android-base/strings.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "pmdb/PMDatabase.h"
#include "pmdb/PSMReferenceOutput.h"
#include "tests/support/FeatureTest.h"
#include "tests/support/SqliteProbe.h"

namespace {

using pwr::test::line;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
namespace site = pwr::site;

constexpr char kStoreFile[] = "/data/vendor/pwr/InputPMDB.db";

class StateStoreTest : public pwr::test::BuiltFeatureTest {
  protected:
    // A ready feature whose store was opened (the constructor opens it only in deep mode).
    PSMPowerOptFeature& open() {
        build(pwr::test::minimalConfig()).pmDbInit();
        return **feature;
    }
    ::StateStore& part() { return peer->store(); }
    std::string rowCount() const {
        return pwr::test::SqliteProbe(tree.hostPath(kStoreFile))
                .scalar("SELECT COUNT(*) FROM PSMPOWEROPT");
    }
    std::vector<std::string> storeLines() const {
        std::vector<std::string> out;
        for (const std::string& m : log.messages()) {
            if (android::base::StartsWith(m, "PSMPOWEROPT: pmDb")) out.push_back(m);
        }
        return out;
    }
};

TEST_F(StateStoreTest, OpensTheDeviceFileOnceInWalMode) {
    PSMPowerOptFeature& f = open();
    PMDatabase<PSMReferenceOutput>* db = part().database();
    ASSERT_NE(db, nullptr);
    EXPECT_EQ(part().status(), 0);
    EXPECT_EQ(db->path(), tree.hostPath(kStoreFile));
    EXPECT_EQ(db->tableName(), "PSMPOWEROPT");
    f.pmDbInit();
    EXPECT_EQ(part().database(), db);
    EXPECT_EQ(pwr::test::SqliteProbe(tree.hostPath(kStoreFile)).scalar("PRAGMA journal_mode"),
              "wal");
}

// A read gives the byte written last under its key (0 when there is none) and consumes every row
// of that key, and of no other.
TEST_F(StateStoreTest, AReadGivesTheLastByteAndConsumesOnlyItsKey) {
    PSMPowerOptFeature& f = open();
    EXPECT_EQ(f.pmDbRead("PSM"), 0);
    log.clear();
    f.pmDbWrite("vendor.a", '1');
    f.pmDbWrite("vendor.a", '7');
    f.pmDbWrite("PSM", '1');
    EXPECT_EQ(rowCount(), "3") << "each write is on disk when it returns";
    EXPECT_EQ(f.pmDbRead("vendor.a"), '7');
    EXPECT_EQ(rowCount(), "1");
    EXPECT_EQ(f.pmDbRead("vendor.a"), 0);
    const std::string written = "Successfully written output to DB, DB Row key name=";
    EXPECT_THAT(storeLines(),
                ElementsAre(line(site::kDbWritten, written + "vendor.a, writing properties 1"),
                            line(site::kDbWritten, written + "vendor.a, writing properties 7"),
                            line(site::kDbWritten, written + "PSM, writing properties 1"),
                            line(site::kDbReadCounts,
                                 "ReferenceAlgo::runAlgo (totalCount , readCount) = (2, 2) "),
                            line(site::kDbReadRow, "Reading properties[0]=1"),
                            line(site::kDbReadRow, "Reading properties[1]=7"),
                            line(site::kDbReadCounts,
                                 "ReferenceAlgo::runAlgo (totalCount , readCount) = (0, 0) ")));
    log.clear();
    PSMPowerOptFeatureTestPeer(f).setDebugEnabled(false);
    EXPECT_EQ(f.pmDbRead("PSM"), '1');
    EXPECT_THAT(log.messages(), IsEmpty()) << "silent without debugging";
}

// A file that is not a database where the store's should be: it is kept, the feature runs
// without a store (every write dropped, every read 0), and a later init tries again.
TEST_F(StateStoreTest, WithoutAUsableFileTheFeatureRunsWithoutAStore) {
    const std::string notSqlite("\x01\x02 not sqlite", 13);
    tree.write(kStoreFile, notSqlite);
    PSMPowerOptFeature& f = open();
    EXPECT_EQ(part().database(), nullptr);
    EXPECT_EQ(part().status(), -1);
    EXPECT_TRUE(PSMPowerOptFeatureTestPeer(f).ready());
    EXPECT_THAT(storeLines(),
                ElementsAre(line(site::kDbInitFailed,
                                 "Error in DB initialization - createFeatureInputDb -1")));
    EXPECT_EQ(log.countContaining(line(site::kDbCreateTable, "ERROR:Dbt=PSMPOWEROPT info=")), 1);
    f.pmDbWrite("PSM", '1');
    EXPECT_EQ(f.pmDbRead("PSM"), 0);
    EXPECT_EQ(storeLines().size(), 1u);
    EXPECT_EQ(tree.read(kStoreFile), notSqlite);
    tree.remove(kStoreFile);
    f.pmDbInit();
    EXPECT_NE(part().database(), nullptr);
    EXPECT_EQ(part().status(), 0);
}

}  // namespace
