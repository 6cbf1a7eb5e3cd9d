// The record store against real SQLite files in a temporary fake device root: keys, reads,
// updates, flushes, and what each failure logs and keeps.

#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <android-base/file.h>
#include <android-base/strings.h>
#include <android-base/unique_fd.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/PlatformLogSites.h"
#include "pmdb/PMDatabase.h"
#include "pmdb/PSMReferenceOutput.h"
#include "pmdb/Transaction.h"
#include "tests/support/FeatureTest.h"
#include "tests/support/SqliteProbe.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Store = PMDatabase<PSMReferenceOutput>;
using Rows = std::vector<std::unique_ptr<PSMReferenceOutput>>;
using pwr::test::line;
using pwr::test::SqliteProbe;
namespace site = pwr::site;

constexpr char kTable[] = "PSMPOWEROPT";
constexpr char kDir[] = "/data/vendor/pwr/";
constexpr char kFile[] = "InputPMDB.db";

std::unique_ptr<PSMReferenceOutput> makeRow(const std::string& appName, char blob,
                                            const std::string& rsvdName = "",
                                            int32_t intcol1 = kPmdbIntUnset) {
    return std::make_unique<PSMReferenceOutput>(
            PSMReferenceOutput{0, intcol1, appName, rsvdName, blob});
}

PMDBDataRowKey keyOf(const std::string& appName, const std::string& rsvdName = "",
                     int32_t intcol1 = kPmdbIntUnset) {
    return {intcol1, appName, rsvdName};
}

std::string blobs(const Rows& rows) {
    std::string out;
    for (const auto& row : rows) out += row->blob;
    return out;
}

class PMDatabaseTest : public ::testing::Test {
  protected:
    void SetUp() override { tree.mkdirs(kDir); }

    std::string dir() const { return tree.hostPath(kDir); }
    std::string file() const { return dir() + kFile; }
    // Lines of the record store only.
    std::vector<std::string> pmdbLines() const {
        std::vector<std::string> out;
        for (const std::string& m : log.messages()) {
            if (android::base::StartsWith(m, "PMDB: ")) out.push_back(m);
        }
        return out;
    }
    std::unique_ptr<Store> openStore() {
        auto store = std::make_unique<Store>(kTable, dir(), kFile);
        EXPECT_EQ(store->openPMdb(), kPmdbSuccess);
        EXPECT_EQ(store->createPMdbTables(), kPmdbSuccess);
        return store;
    }
    static void write(Store& store, std::unique_ptr<PSMReferenceOutput> row) {
        store.enqueueDR(std::move(row));
        EXPECT_EQ(store.writeCachedDRToDisk(), kPmdbSuccess);
    }

    pwr::test::DeviceTree tree;
    pwr::test::LogCapture log;
};

TEST_F(PMDatabaseTest, OpensTheFileInWalModeWithItsTableOrMemoryWithoutAName) {
    auto store = openStore();
    EXPECT_EQ(store->path(), file());
    SqliteProbe probe(file());
    ASSERT_TRUE(probe.ok());
    EXPECT_EQ(probe.scalar("PRAGMA journal_mode"), "wal");
    EXPECT_EQ(probe.scalar("SELECT sql FROM sqlite_master WHERE name = 'PSMPOWEROPT'"),
              "CREATE TABLE PSMPOWEROPT(intcol1 INTEGER, appName TEXT NOT null, rsvdName TEXT, "
              "blob BLOB)");
    const std::string empty = tree.hostPath("/data/vendor/empty/");
    tree.mkdirs("/data/vendor/empty");
    Store memory(kTable, empty, "");
    EXPECT_EQ(memory.path(), ":memory:");
    ASSERT_EQ(memory.openPMdb(), kPmdbSuccess);
    ASSERT_EQ(memory.createPMdbTables(), kPmdbSuccess);
    write(memory, makeRow("PSM", '1'));
    EXPECT_EQ(blobs(memory.readAllocateDR(keyOf("PSM"))), "1");
    EXPECT_TRUE(std::filesystem::is_empty(empty));
    EXPECT_THAT(pmdbLines(), IsEmpty());
}

TEST_F(PMDatabaseTest, ARowReadBackIsUpdatedInPlaceANewRowIsInserted) {
    auto store = openStore();
    write(*store, makeRow("vendor.a", '1'));
    Rows rows = store->readAllocateDR(keyOf("vendor.a"));
    ASSERT_EQ(rows.size(), 1u);
    const int64_t rowid = rows[0]->rowid;
    EXPECT_NE(rowid, 0);
    EXPECT_EQ(rows[0]->intcol1, kPmdbIntUnset);
    EXPECT_EQ(rows[0]->rsvdName, "");
    rows[0]->blob = '2';
    write(*store, std::move(rows[0]));
    write(*store, makeRow("vendor.a", '3'));
    rows = store->readAllocateDR(keyOf("vendor.a"));
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(blobs(rows), "23");
    EXPECT_EQ(rows[0]->rowid, rowid);
    EXPECT_GT(rows[1]->rowid, rowid);
}

TEST_F(PMDatabaseTest, UnsetPartsInheritTheRowWrittenBeforeInOneFlushOnly) {
    auto store = openStore();
    store->enqueueDR(makeRow("first", '1', "r1", 7));
    store->enqueueDR(makeRow("second", '2'));
    store->enqueueDR(makeRow("", '3'));
    EXPECT_EQ(store->writeCachedDRToDisk(), kPmdbSuccess);
    EXPECT_EQ(store->cachedCount(), 0u);
    write(*store, makeRow("third", '4'));
    SqliteProbe probe(file());
    EXPECT_EQ(probe.query("SELECT intcol1, appName, rsvdName, blob FROM PSMPOWEROPT"),
              (std::vector<std::vector<std::string>>{{"7", "first", "r1", "1"},
                                                     {"7", "second", "r1", "2"},
                                                     {"7", "second", "r1", "3"},
                                                     {"NULL", "third", "NULL", "4"}}));
}

TEST_F(PMDatabaseTest, KeysSelectReadCountAndDeleteOnEveryPartSet) {
    auto store = openStore();
    write(*store, makeRow("a", '1', "x", 4));
    write(*store, makeRow("a", '2', "y", 4));
    write(*store, makeRow("a", '3', "x", 5));
    write(*store, makeRow("b", '4'));
    const struct {
        PMDBDataRowKey key;
        const char* blobs;
    } cases[] = {
            {keyOf("a"), "123"},      {keyOf("a", "x"), "13"}, {keyOf("a", "x", 5), "3"},
            {keyOf("", "", 4), "12"}, {keyOf("c"), ""},        {PMDBDataRowKey{}, "1234"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(blobs(store->readAllocateDR(c.key)), c.blobs);
        EXPECT_EQ(store->getCountDR(c.key), static_cast<int>(strlen(c.blobs)));
    }
    store->deleteAllDR(keyOf("a", "x"));
    EXPECT_EQ(blobs(store->readAllocateDR(PMDBDataRowKey{})), "24");
    store->deleteAllDR(keyOf("c"));
    store->deleteAllDR(PMDBDataRowKey{});
    EXPECT_EQ(store->getCountDR(PMDBDataRowKey{}), 0);
    EXPECT_THAT(pmdbLines(), IsEmpty());
}

TEST_F(PMDatabaseTest, OneReadStopsAtTenThousandRows) {
    auto store = openStore();
    constexpr int kRows = 10050;
    for (int i = 0; i < kRows; ++i) {
        store->enqueueDR(makeRow("many", static_cast<char>('a' + i % 26)));
    }
    EXPECT_EQ(store->writeCachedDRToDisk(), kPmdbSuccess);
    Rows rows = store->readAllocateDR(keyOf("many"));
    ASSERT_EQ(rows.size(), 10000u);
    EXPECT_EQ(rows.front()->rowid, 1);
    EXPECT_EQ(rows.back()->rowid, 10000);
    EXPECT_EQ(store->getCountDR(keyOf("many")), kRows);
    EXPECT_THAT(pmdbLines(), IsEmpty());
}

TEST_F(PMDatabaseTest, RowsQueuedAtDestructionAreWrittenOrReportedWithoutAConnection) {
    {
        auto store = openStore();
        store->enqueueDR(makeRow("late", '9'));
    }
    SqliteProbe probe(file());
    EXPECT_EQ(probe.scalar("SELECT blob FROM PSMPOWEROPT WHERE appName = 'late'"), "9");
    {
        Store closed(kTable, dir(), "other.db");
        closed.enqueueDR(makeRow("a", '1'));
        closed.enqueueDR(makeRow("b", '2'));
        EXPECT_EQ(closed.writeCachedDRToDisk(), kPmdbFailure);
        EXPECT_EQ(closed.cachedCount(), 2u);
        EXPECT_TRUE(closed.readAllocateDR(PMDBDataRowKey{}).empty());
        EXPECT_EQ(closed.getCountDR(PMDBDataRowKey{}), 0);
    }
    EXPECT_THAT(pmdbLines(),
                ElementsAre(line(site::kDbRowsLeft, "ERROR:Dbt=PSMPOWEROPT blstSz=0, clstSz=2\n")));
    EXPECT_FALSE(std::filesystem::exists(dir() + "other.db"));
}

// Opening against what the device may hold instead of the store's file: the status of the open
// and of the table's creation, and the lines logged (a failed open forgets its connection, so
// destruction adds none). SQLite reads lazily: a file that is not a database opens, and the first
// statement finds the fault.
TEST_F(PMDatabaseTest, AnUnusablePathFailsWithItsLines) {
    const std::string notADatabase = " info=file is not a database\n";
    for (const bool garbage : {false, true}) {
        tree.remove(kDir);
        if (garbage) tree.write(std::string(kDir) + kFile, "not a database\n");
        log.clear();
        {
            Store store(kTable, dir(), kFile);
            EXPECT_EQ(store.openPMdb(), garbage ? kPmdbSuccess : kPmdbFailure);
            EXPECT_EQ(store.isOpen(), garbage);
            EXPECT_EQ(store.createPMdbTables(), kPmdbFailure);
        }
        EXPECT_EQ(pmdbLines(),
                  garbage ? pwr::test::lines(line(site::kDbJournalMode,
                                                  "sql:ERROR:Dbt=" + file() + notADatabase),
                                             line(site::kDbCreateTable,
                                                  "ERROR:Dbt=PSMPOWEROPT" + notADatabase),
                                             line(site::kDbFlushPrepare,
                                                  "ERROR:Dbt=PSMPOWEROPT" + notADatabase))
                          : pwr::test::lines(
                                    line(site::kDbOpenFailed,
                                         "ERROR:Db=" + file() + " sql open failed, err=14\n")));
    }
}

TEST_F(PMDatabaseTest, AQuoteInAKeyBreaksItsReadsButTheRowIsWrittenAndTheStoreGoesOn) {
    auto store = openStore();
    write(*store, makeRow("vendor.it's", '1'));  // bound parameters: the row reaches the disk
    EXPECT_THAT(pmdbLines(), IsEmpty());
    EXPECT_TRUE(store->readAllocateDR(keyOf("vendor.it's")).empty());
    EXPECT_EQ(store->getCountDR(keyOf("vendor.it's")), 0);
    store->deleteAllDR(keyOf("vendor.it's"));
    const std::vector<std::string> lines = pmdbLines();
    ASSERT_EQ(lines.size(), 3u) << ::testing::PrintToString(lines);
    const std::string error = "sql:ERROR:Dbt=PSMPOWEROPT info=";
    EXPECT_THAT(lines[0], ::testing::StartsWith(line(site::kDbReadPrepare, error)));
    EXPECT_THAT(lines[1], ::testing::StartsWith(line(site::kDbCountPrepare, error)));
    EXPECT_THAT(lines[2], ::testing::StartsWith(line(site::kDbDeletePrepare, error)));
    SqliteProbe probe(file());
    EXPECT_EQ(probe.scalar("SELECT COUNT(*) FROM PSMPOWEROPT WHERE appName = 'vendor.it''s'"), "1");
    write(*store, makeRow("vendor.ok", '5'));
    EXPECT_EQ(blobs(store->readAllocateDR(keyOf("vendor.ok"))), "5");
}

// Another process holding the write lock: the transaction cannot start, the row is written
// outside it, fails as well and is dropped, as every failed row is. The next flush works.
TEST_F(PMDatabaseTest, AWriteLockHeldElsewhereDropsTheRowWithLoggedErrors) {
    auto store = openStore();
    SqliteProbe other(file());
    ASSERT_TRUE(other.query("BEGIN IMMEDIATE").empty());
    store->enqueueDR(makeRow("vendor.a", '1'));
    EXPECT_EQ(store->writeCachedDRToDisk(), kPmdbFailure);
    EXPECT_EQ(store->cachedCount(), 0u);
    const std::string error = "sql:ERROR:Dbt=PSMPOWEROPT info=";
    EXPECT_THAT(pmdbLines(),
                ElementsAre(line(site::kDbFlushBegin, error + "database is locked\n"),
                            line(site::kDbFlushBeginRollback,
                                 error + "cannot rollback - no transaction is active\n"),
                            line(site::kDbFlushStep, error + "5\n"),
                            line(site::kDbFlushReset, error + "5\n"),
                            line(site::kDbFlushCommit,
                                 error + "cannot commit - no transaction is active\n"),
                            line(site::kDbFlushCommitRollback,
                                 error + "cannot rollback - no transaction is active\n")));
    ASSERT_TRUE(other.query("COMMIT").empty());
    write(*store, makeRow("vendor.b", '2'));
    EXPECT_EQ(blobs(store->readAllocateDR(PMDBDataRowKey{})), "2");
}

TEST_F(PMDatabaseTest, ACorruptTableFailsReadsAndWritesWithLoggedErrors) {
    {
        auto store = openStore();
        write(*store, makeRow("PSM", '1'));
    }
    {  // page 2 holds the table's rows; page 1, the schema, stays intact
        android::base::unique_fd fd(open(file().c_str(), O_WRONLY | O_CLOEXEC));
        ASSERT_GE(fd.get(), 0) << strerror(errno);
        const std::string garbage(4096, '\xff');
        ASSERT_EQ(pwrite(fd.get(), garbage.data(), garbage.size(), 4096),
                  static_cast<ssize_t>(garbage.size()));
    }
    auto store = openStore();
    EXPECT_TRUE(store->readAllocateDR(keyOf("PSM")).empty());
    store->enqueueDR(makeRow("vendor.a", '0'));
    EXPECT_EQ(store->writeCachedDRToDisk(), kPmdbFailure);
    EXPECT_EQ(store->cachedCount(), 0u);
    const std::string error = "sql:ERROR:Dbt=PSMPOWEROPT info=11\n";
    EXPECT_EQ(log.count(line(site::kDbReadReset, error)), 1);
    EXPECT_EQ(log.count(line(site::kDbFlushStep, error)), 1);
}

// The guard keeps a transaction's rows only when commit() ran; leaving its scope otherwise (an
// exception in the flush's loop) rolls them back.
TEST(Transaction, RollsBackUnlessCommitted) {
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(":memory:", &db), SQLITE_OK);
    std::unique_ptr<sqlite3, int (*)(sqlite3*)> closer(db, sqlite3_close_v2);
    ASSERT_EQ(sqlite3_exec(db, "CREATE TABLE t(x)", nullptr, nullptr, nullptr), SQLITE_OK);
    Statement begin, commit, rollback, insert, count;
    ASSERT_EQ(begin.prepare(db, "BEGIN IMMEDIATE TRANSACTION;"), SQLITE_OK);
    ASSERT_EQ(commit.prepare(db, "COMMIT TRANSACTION;"), SQLITE_OK);
    ASSERT_EQ(rollback.prepare(db, "ROLLBACK TRANSACTION;"), SQLITE_OK);
    ASSERT_EQ(insert.prepare(db, "INSERT INTO t VALUES (1)"), SQLITE_OK);
    std::string error;
    for (const bool commits : {false, true, false}) {
        Transaction transaction(db, begin, commit, rollback);
        ASSERT_EQ(transaction.begin(&error), SQLITE_OK) << error;
        ASSERT_EQ(insert.run(db, &error), SQLITE_OK) << error;
        if (commits) {
            EXPECT_EQ(transaction.commit(&error), SQLITE_OK) << error;
        }
    }
    ASSERT_EQ(count.prepare(db, "SELECT COUNT(*) FROM t"), SQLITE_OK);
    ASSERT_EQ(sqlite3_step(count.get()), SQLITE_ROW);
    EXPECT_EQ(sqlite3_column_int(count.get(), 0), 1);
    EXPECT_TRUE(sqlite3_get_autocommit(db)) << "a transaction was left open";
}

// The event thread and timer threads write through one connection: no flush may start its
// transaction inside another's, or roll it back.
TEST_F(PMDatabaseTest, ConcurrentWritersLoseNoRow) {
    auto store = openStore();
    constexpr int kThreads = 4;
    constexpr int kRowsEach = 40;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&store, t] {
            for (int i = 0; i < kRowsEach; ++i) {
                store->enqueueDR(makeRow("thread" + std::to_string(t), static_cast<char>('0' + t)));
                store->writeCachedDRToDisk();
                if (i % 8 == 0) store->getCountDR(keyOf("thread" + std::to_string(t)));
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    for (int t = 0; t < kThreads; ++t) {
        EXPECT_EQ(store->getCountDR(keyOf("thread" + std::to_string(t))), kRowsEach);
    }
    EXPECT_THAT(pmdbLines(), IsEmpty());
}

// With the store's directory read-only to an ordinary user (the tests run as root, which ignores
// permissions, so a child drops to nobody), the store either refuses to open or its writes fail:
// with logged errors, nothing thrown, and the rows already on disk kept.
TEST_F(PMDatabaseTest, AReadOnlyDirectoryLosesNothing) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to hand the tree to another user";
    {
        auto store = openStore();
        write(*store, makeRow("PSM", '1'));
    }
    for (const char* path : {"", "/data", "/data/vendor"}) {
        ASSERT_EQ(chmod(tree.hostPath(path).c_str(), 0755), 0) << strerror(errno);
    }
    ASSERT_EQ(chown(file().c_str(), 65534, 65534), 0) << strerror(errno);
    ASSERT_EQ(chmod(dir().c_str(), 0555), 0) << strerror(errno);
    const pid_t pid = fork();
    if (pid == 0) {
        constexpr uid_t kNobody = 65534;
        if (setgroups(0, nullptr) != 0 || setresgid(kNobody, kNobody, kNobody) != 0 ||
            setresuid(kNobody, kNobody, kNobody) != 0) {
            _exit(3);
        }
        log.clear();
        Store store(kTable, dir(), kFile);
        pmdbError status = store.openPMdb();
        if (status == kPmdbSuccess) status = store.createPMdbTables();
        if (status == kPmdbSuccess) {
            store.enqueueDR(makeRow("vendor.new", '0'));
            status = store.writeCachedDRToDisk();
        }
        _exit(status == kPmdbFailure && log.countContaining("ERROR") > 0 ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == 3) GTEST_SKIP() << "cannot drop privileges";
    EXPECT_EQ(WEXITSTATUS(status), 0) << "the store did not fail with logged errors";
    ASSERT_EQ(chmod(dir().c_str(), 0755), 0) << strerror(errno);
    auto store = openStore();
    EXPECT_EQ(blobs(store->readAllocateDR(PMDBDataRowKey{})), "1");
}

}  // namespace
