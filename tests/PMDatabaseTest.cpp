// The record store against real SQLite files in a temporary fake device root.

#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <android-base/file.h>
#include <android-base/strings.h>
#include <android-base/unique_fd.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "pmdb/PMDatabase.h"
#include "pmdb/PSMReferenceOutput.h"
#include "pmdb/Transaction.h"
#include "tests/support/DeviceTree.h"
#include "tests/support/LogCapture.h"
#include "tests/support/SqliteProbe.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using Store = PMDatabase<PSMReferenceOutput>;
using Rows = std::vector<std::unique_ptr<PSMReferenceOutput>>;
using pwr::test::LogCapture;
using pwr::test::SqliteProbe;

constexpr char kTable[] = "PSMPOWEROPT";
constexpr char kDir[] = "/data/vendor/pwr/";
constexpr char kFile[] = "InputPMDB.db";

std::unique_ptr<PSMReferenceOutput> makeRow(const std::string& appName, char blob,
                                            const std::string& rsvdName = "",
                                            int32_t intcol1 = kPmdbIntUnset, int64_t rowid = 0) {
    auto row = std::make_unique<PSMReferenceOutput>();
    row->rowid = rowid;
    row->intcol1 = intcol1;
    row->appName = appName;
    row->rsvdName = rsvdName;
    row->blob = blob;
    return row;
}

PMDBDataRowKey keyOf(const std::string& appName) {
    PMDBDataRowKey key;
    key.appName = appName;
    return key;
}

std::string blobs(const Rows& rows) {
    std::string out;
    for (const auto& row : rows) out += row->blob;
    return out;
}

// Messages of the record store only.
std::vector<std::string> pmdbMessages(const LogCapture& log) {
    std::vector<std::string> out;
    for (const std::string& m : log.messages()) {
        if (android::base::StartsWith(m, "PMDB: ")) out.push_back(m);
    }
    return out;
}

class PMDatabaseTest : public ::testing::Test {
  protected:
    void SetUp() override { tree.mkdirs(kDir); }

    std::string dir() const { return tree.hostPath(kDir); }
    std::string file() const { return dir() + kFile; }

    // A store on the device's file, opened with its table.
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
};

TEST(PMDatabaseWhereClause, ListsSetPartsInFixedOrder) {
    std::string query = "SELECT *, rowid FROM PSMPOWEROPT ";
    Store::build_query_for_where_clause(keyOf("PSM"), query);
    EXPECT_EQ(query, "SELECT *, rowid FROM PSMPOWEROPT WHERE (appName) = ('PSM') ");

    PMDBDataRowKey all;
    all.intcol1 = -3;
    all.appName = "a";
    all.rsvdName = "b";
    query.clear();
    Store::build_query_for_where_clause(all, query);
    EXPECT_EQ(query, "WHERE (appName,rsvdName,intcol1) = ('a','b',-3) ");

    PMDBDataRowKey intOnly;
    intOnly.intcol1 = 0;
    query.clear();
    Store::build_query_for_where_clause(intOnly, query);
    EXPECT_EQ(query, "WHERE (intcol1) = (0) ");
}

TEST(PMDatabaseWhereClause, NoPartSetAppendsNothing) {
    std::string query = "DELETE FROM PSMPOWEROPT ";
    Store::build_query_for_where_clause(PMDBDataRowKey{}, query);
    EXPECT_EQ(query, "DELETE FROM PSMPOWEROPT ");
}

TEST(PMDatabaseWhereClause, QuotesAreNotEscaped) {
    std::string query;
    Store::build_query_for_where_clause(keyOf("it's"), query);
    EXPECT_EQ(query, "WHERE (appName) = ('it's') ");
}

TEST_F(PMDatabaseTest, OpenFileSwitchesToWal) {
    LogCapture log;
    auto store = openStore();
    EXPECT_TRUE(store->isOpen());
    EXPECT_EQ(store->path(), file());
    SqliteProbe probe(file());
    ASSERT_TRUE(probe.ok());
    EXPECT_EQ(probe.scalar("PRAGMA journal_mode"), "wal");
    EXPECT_EQ(probe.scalar("SELECT sql FROM sqlite_master WHERE name = 'PSMPOWEROPT'"),
              "CREATE TABLE PSMPOWEROPT(intcol1 INTEGER, appName TEXT NOT null, rsvdName TEXT, "
              "blob BLOB)");
    EXPECT_THAT(pmdbMessages(log), ::testing::IsEmpty());
}

TEST_F(PMDatabaseTest, EmptyFileNameOpensMemoryWithoutFile) {
    LogCapture log;
    Store store(kTable, dir(), "");
    EXPECT_EQ(store.path(), ":memory:");
    ASSERT_EQ(store.openPMdb(), kPmdbSuccess);
    ASSERT_EQ(store.createPMdbTables(), kPmdbSuccess);
    write(store, makeRow("PSM", '1'));
    EXPECT_EQ(blobs(store.readAllocateDR(keyOf("PSM"))), "1");
    EXPECT_TRUE(std::filesystem::is_empty(dir()));
    EXPECT_THAT(pmdbMessages(log), ::testing::IsEmpty());
}

TEST_F(PMDatabaseTest, RowidZeroInsertsAndRowReadBackUpdatesInPlace) {
    auto store = openStore();
    write(*store, makeRow("vendor.a", '1'));
    Rows rows = store->readAllocateDR(keyOf("vendor.a"));
    ASSERT_EQ(rows.size(), 1u);
    const int64_t rowid = rows[0]->rowid;
    EXPECT_NE(rowid, 0);
    EXPECT_EQ(rows[0]->blob, '1');
    EXPECT_EQ(rows[0]->intcol1, kPmdbIntUnset);
    EXPECT_EQ(rows[0]->rsvdName, "");

    rows[0]->blob = '2';
    write(*store, std::move(rows[0]));
    rows = store->readAllocateDR(keyOf("vendor.a"));
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0]->rowid, rowid);
    EXPECT_EQ(rows[0]->blob, '2');

    write(*store, makeRow("vendor.a", '3'));
    rows = store->readAllocateDR(keyOf("vendor.a"));
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(blobs(rows), "23");
    EXPECT_GT(rows[1]->rowid, rowid);
}

TEST_F(PMDatabaseTest, UnsetPartsInheritTheRowWrittenBeforeInOneFlush) {
    auto store = openStore();
    store->enqueueDR(makeRow("first", '1', "r1", 7));
    store->enqueueDR(makeRow("second", '2'));
    store->enqueueDR(makeRow("", '3'));
    EXPECT_EQ(store->writeCachedDRToDisk(), kPmdbSuccess);
    EXPECT_EQ(store->cachedCount(), 0u);

    SqliteProbe probe(file());
    EXPECT_EQ(probe.query("SELECT intcol1, appName, rsvdName, blob FROM PSMPOWEROPT"),
              (std::vector<std::vector<std::string>>{{"7", "first", "r1", "1"},
                                                     {"7", "second", "r1", "2"},
                                                     {"7", "second", "r1", "3"}}));

    // A later flush starts from fresh statements: nothing is inherited across flushes.
    write(*store, makeRow("third", '4'));
    EXPECT_EQ(probe.query("SELECT intcol1, rsvdName FROM PSMPOWEROPT WHERE appName = 'third'"),
              (std::vector<std::vector<std::string>>{{"NULL", "NULL"}}));
    Rows rows = store->readAllocateDR(keyOf("third"));
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0]->intcol1, kPmdbIntUnset);
}

TEST_F(PMDatabaseTest, KeyWithNoPartCoversWholeTable) {
    auto store = openStore();
    write(*store, makeRow("a", '1'));
    write(*store, makeRow("b", '2', "x", 4));
    write(*store, makeRow("c", '3'));
    const PMDBDataRowKey everything;
    EXPECT_EQ(blobs(store->readAllocateDR(everything)), "123");
    EXPECT_EQ(store->getCountDR(everything), 3);
    store->deleteAllDR(everything);
    EXPECT_EQ(store->getCountDR(everything), 0);
    EXPECT_TRUE(store->readAllocateDR(everything).empty());
}

TEST_F(PMDatabaseTest, KeySelectsOnEveryPartSet) {
    auto store = openStore();
    write(*store, makeRow("a", '1', "x", 4));
    write(*store, makeRow("a", '2', "y", 4));
    write(*store, makeRow("a", '3', "x", 5));
    PMDBDataRowKey key = keyOf("a");
    key.rsvdName = "x";
    EXPECT_EQ(blobs(store->readAllocateDR(key)), "13");
    key.intcol1 = 5;
    EXPECT_EQ(blobs(store->readAllocateDR(key)), "3");
    EXPECT_EQ(store->getCountDR(key), 1);
    store->deleteAllDR(key);
    EXPECT_EQ(store->getCountDR(keyOf("a")), 2);
}

TEST_F(PMDatabaseTest, MissingKeyReadsNothingAndCountsZero) {
    auto store = openStore();
    write(*store, makeRow("a", '1'));
    LogCapture log;
    EXPECT_TRUE(store->readAllocateDR(keyOf("b")).empty());
    EXPECT_EQ(store->getCountDR(keyOf("b")), 0);
    store->deleteAllDR(keyOf("b"));
    EXPECT_EQ(store->getCountDR(keyOf("a")), 1);
    EXPECT_THAT(pmdbMessages(log), ::testing::IsEmpty());
}

TEST_F(PMDatabaseTest, ReadThenDeleteConsumesOnlyThatKey) {
    auto store = openStore();
    write(*store, makeRow("a", '1'));
    write(*store, makeRow("b", '3'));
    write(*store, makeRow("a", '2'));
    EXPECT_EQ(blobs(store->readAllocateDR(keyOf("a"))), "12");
    store->deleteAllDR(keyOf("a"));
    EXPECT_TRUE(store->readAllocateDR(keyOf("a")).empty());
    EXPECT_EQ(blobs(store->readAllocateDR(keyOf("b"))), "3");
}

TEST_F(PMDatabaseTest, OneReadStopsAtTenThousandRows) {
    auto store = openStore();
    constexpr int kRows = 10050;
    for (int i = 0; i < kRows; ++i)
        store->enqueueDR(makeRow("many", static_cast<char>('a' + i % 26)));
    store->enqueueDR(makeRow("other", 'z'));
    LogCapture log;
    EXPECT_EQ(store->writeCachedDRToDisk(), kPmdbSuccess);

    Rows rows = store->readAllocateDR(keyOf("many"));
    ASSERT_EQ(rows.size(), 10000u);
    EXPECT_EQ(rows.front()->rowid, 1);
    EXPECT_EQ(rows.back()->rowid, 10000);
    EXPECT_EQ(rows.back()->blob, static_cast<char>('a' + 9999 % 26));
    EXPECT_EQ(store->getCountDR(keyOf("many")), kRows);
    EXPECT_EQ(store->readAllocateDR(PMDBDataRowKey{}).size(), 10000u);
    EXPECT_THAT(pmdbMessages(log), ::testing::IsEmpty());
}

TEST_F(PMDatabaseTest, QuoteInKeyBreaksReadsButKeepsTheRow) {
    auto store = openStore();
    LogCapture log;
    // Written through bound parameters, so the row itself goes to disk.
    write(*store, makeRow("vendor.it's", '1'));
    EXPECT_THAT(pmdbMessages(log), ::testing::IsEmpty());

    EXPECT_TRUE(store->readAllocateDR(keyOf("vendor.it's")).empty());
    EXPECT_EQ(store->getCountDR(keyOf("vendor.it's")), 0);
    store->deleteAllDR(keyOf("vendor.it's"));
    const std::vector<std::string> messages = pmdbMessages(log);
    ASSERT_EQ(messages.size(), 3u) << ::testing::PrintToString(messages);
    EXPECT_THAT(messages[0],
                HasSubstr("PMDB: readAllocateDR() 142: sql:ERROR:Dbt=PSMPOWEROPT info="));
    EXPECT_THAT(messages[1], HasSubstr("PMDB: getCountDR() 190: sql:ERROR:Dbt=PSMPOWEROPT info="));
    EXPECT_THAT(messages[2], HasSubstr("PMDB: deleteAllDR() 212: sql:ERROR:Dbt=PSMPOWEROPT info="));

    // The row is still there, and the store keeps working for other keys.
    SqliteProbe probe(file());
    EXPECT_EQ(probe.scalar("SELECT COUNT(*) FROM PSMPOWEROPT WHERE appName = 'vendor.it''s'"), "1");
    write(*store, makeRow("vendor.ok", '5'));
    EXPECT_EQ(blobs(store->readAllocateDR(keyOf("vendor.ok"))), "5");
}

// Another process holding the write lock: the transaction cannot start, the row is written
// outside it, fails as well and is dropped, as every failed row is. The next flush works.
TEST_F(PMDatabaseTest, WriteLockHeldElsewhereDropsTheRowWithLoggedErrors) {
    auto store = openStore();
    SqliteProbe other(file());
    ASSERT_TRUE(other.query("BEGIN IMMEDIATE").empty());
    LogCapture log;
    store->enqueueDR(makeRow("vendor.a", '1'));
    EXPECT_EQ(store->writeCachedDRToDisk(), kPmdbFailure);
    EXPECT_EQ(store->cachedCount(), 0u);
    EXPECT_THAT(
            pmdbMessages(log),
            ElementsAre("PMDB: writeCachedDRToDisk() 247: sql:ERROR:Dbt=PSMPOWEROPT info=database "
                        "is locked\n",
                        "PMDB: writeCachedDRToDisk() 250: sql:ERROR:Dbt=PSMPOWEROPT info=cannot "
                        "rollback - no transaction is active\n",
                        "PMDB: writeCachedDRToDisk() 291: sql:ERROR:Dbt=PSMPOWEROPT info=5\n",
                        "PMDB: writeCachedDRToDisk() 294: sql:ERROR:Dbt=PSMPOWEROPT info=5\n",
                        "PMDB: writeCachedDRToDisk() 305: sql:ERROR:Dbt=PSMPOWEROPT info=cannot "
                        "commit - no transaction is active\n",
                        "PMDB: writeCachedDRToDisk() 308: sql:ERROR:Dbt=PSMPOWEROPT info=cannot "
                        "rollback - no transaction is active\n"));

    ASSERT_TRUE(other.query("COMMIT").empty());
    write(*store, makeRow("vendor.b", '2'));
    EXPECT_EQ(blobs(store->readAllocateDR(PMDBDataRowKey{})), "2");
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
    LogCapture log;
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
    EXPECT_THAT(pmdbMessages(log), ::testing::IsEmpty());
}

TEST_F(PMDatabaseTest, DestructionFlushesQueuedRows) {
    LogCapture log;
    {
        auto store = openStore();
        store->enqueueDR(makeRow("late", '9'));
    }
    SqliteProbe probe(file());
    EXPECT_EQ(probe.scalar("SELECT blob FROM PSMPOWEROPT WHERE appName = 'late'"), "9");
    EXPECT_THAT(pmdbMessages(log), ::testing::IsEmpty());
}

TEST_F(PMDatabaseTest, WithoutConnectionRowsStayQueuedUntilDestruction) {
    LogCapture log;
    {
        Store store(kTable, dir(), kFile);
        store.enqueueDR(makeRow("a", '1'));
        store.enqueueDR(makeRow("b", '2'));
        EXPECT_EQ(store.writeCachedDRToDisk(), kPmdbFailure);
        EXPECT_EQ(store.cachedCount(), 2u);
        EXPECT_TRUE(store.readAllocateDR(PMDBDataRowKey{}).empty());
        EXPECT_EQ(store.getCountDR(PMDBDataRowKey{}), 0);
    }
    EXPECT_THAT(pmdbMessages(log),
                ElementsAre("PMDB: ~PMDBDataTable() 48: ERROR:Dbt=PSMPOWEROPT blstSz=0, "
                            "clstSz=2\n"));
    EXPECT_FALSE(std::filesystem::exists(file()));
}

// A failed open closes and forgets the connection, so destruction neither flushes nor closes it
// a second time: the open failure is the only message.
TEST_F(PMDatabaseTest, MissingDirectoryFailsOpenWithOneMessage) {
    tree.remove("/data/vendor/pwr");
    LogCapture log;
    {
        Store store(kTable, dir(), kFile);
        EXPECT_EQ(store.openPMdb(), kPmdbFailure);
        EXPECT_FALSE(store.isOpen());
        EXPECT_EQ(store.createPMdbTables(), kPmdbFailure);
    }
    EXPECT_THAT(pmdbMessages(log), ElementsAre("PMDB: openPMdb() 101: ERROR:Db=" + file() +
                                               " sql open failed, err=14\n"));
    EXPECT_FALSE(std::filesystem::exists(dir()));
}

TEST_F(PMDatabaseTest, DirectoryThatIsAFileFailsOpen) {
    tree.remove("/data/vendor/pwr");
    tree.write("/data/vendor/pwr", "not a directory\n");
    LogCapture log;
    {
        Store store(kTable, dir(), kFile);
        EXPECT_EQ(store.openPMdb(), kPmdbFailure);
    }
    EXPECT_THAT(pmdbMessages(log), ElementsAre("PMDB: openPMdb() 101: ERROR:Db=" + file() +
                                               " sql open failed, err=14\n"));
    EXPECT_EQ(tree.read("/data/vendor/pwr"), "not a directory\n");
}

TEST_F(PMDatabaseTest, FileThatIsNotADatabaseFailsTableCreationAndIsKept) {
    const std::string content = "this is somebody else's file, leave it alone\n";
    tree.write(std::string(kDir) + kFile, content);
    LogCapture log;
    {
        Store store(kTable, dir(), kFile);
        // SQLite reads the file lazily: the open works, the first statement finds the fault.
        EXPECT_EQ(store.openPMdb(), kPmdbSuccess);
        EXPECT_EQ(store.createPMdbTables(), kPmdbFailure);
    }
    const std::vector<std::string> messages = pmdbMessages(log);
    ASSERT_GE(messages.size(), 2u) << ::testing::PrintToString(messages);
    EXPECT_EQ(messages[0],
              "PMDB: openPMdb() 108: sql:ERROR:Dbt=" + file() + " info=file is not a database\n");
    EXPECT_EQ(messages[1],
              "PMDB: createPMdbTables() 124: ERROR:Dbt=PSMPOWEROPT info=file is not a database\n");
    EXPECT_EQ(tree.read(std::string(kDir) + kFile), content);
}

TEST_F(PMDatabaseTest, CorruptTableKeepsStoreRunningWithLoggedFailures) {
    {
        auto store = openStore();
        write(*store, makeRow("PSM", '1'));
    }
    // Page 2 holds the table's rows; page 1, the schema, stays intact.
    {
        android::base::unique_fd fd(open(file().c_str(), O_WRONLY | O_CLOEXEC));
        ASSERT_GE(fd.get(), 0) << strerror(errno);
        const std::string garbage(4096, '\xff');
        ASSERT_EQ(pwrite(fd.get(), garbage.data(), garbage.size(), 4096),
                  static_cast<ssize_t>(garbage.size()))
                << strerror(errno);
    }
    LogCapture log;
    auto store = openStore();
    EXPECT_TRUE(store->readAllocateDR(keyOf("PSM")).empty());
    EXPECT_EQ(log.countContaining("PMDB: readAllocateDR() 170: sql:ERROR:Dbt=PSMPOWEROPT info=11"),
              1);
    store->enqueueDR(makeRow("vendor.a", '0'));
    EXPECT_EQ(store->writeCachedDRToDisk(), kPmdbFailure);
    EXPECT_EQ(log.countContaining(
                      "PMDB: writeCachedDRToDisk() 291: sql:ERROR:Dbt=PSMPOWEROPT info=11"),
              1);
    EXPECT_EQ(store->cachedCount(), 0u);
}

// Runs `body` in a child process with the privileges of an ordinary user, so that directory
// permissions apply (the tests run as root, which ignores them). The child's lines come back.
std::vector<std::string> runUnprivileged(const std::function<void(std::ostream&)>& body,
                                         bool* dropped) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return {"pipe failed"};
    android::base::unique_fd readEnd(fds[0]);
    android::base::unique_fd writeEnd(fds[1]);
    const pid_t pid = fork();
    if (pid == 0) {
        readEnd.reset();
        std::ostringstream out;
        constexpr uid_t kNobody = 65534;
        if (setgroups(0, nullptr) != 0 || setresgid(kNobody, kNobody, kNobody) != 0 ||
            setresuid(kNobody, kNobody, kNobody) != 0) {
            _exit(3);
        }
        body(out);
        android::base::WriteStringToFd(out.str(), writeEnd.get());
        _exit(0);
    }
    writeEnd.reset();
    std::string text;
    android::base::ReadFdToString(readEnd.get(), &text);
    int status = 0;
    waitpid(pid, &status, 0);
    *dropped = !(WIFEXITED(status) && WEXITSTATUS(status) == 3);
    if (!WIFEXITED(status) || (WEXITSTATUS(status) != 0 && WEXITSTATUS(status) != 3)) {
        return {"child failed with status " + std::to_string(status)};
    }
    return android::base::Split(text, "\n");
}

// The tree must be reachable by the unprivileged child; the store's directory is read-only.
void makeReadOnlyForOthers(const pwr::test::DeviceTree& tree, const std::string& file) {
    for (const char* dir : {"", "/data", "/data/vendor"}) {
        ASSERT_EQ(chmod(tree.hostPath(dir).c_str(), 0755), 0) << strerror(errno);
    }
    if (!file.empty()) {
        ASSERT_EQ(chown(file.c_str(), 65534, 65534), 0) << strerror(errno);
    }
    ASSERT_EQ(chmod(tree.hostPath("/data/vendor/pwr").c_str(), 0555), 0) << strerror(errno);
}

TEST_F(PMDatabaseTest, ReadOnlyDirectoryWithoutFileFailsOpen) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to hand the tree to another user";
    makeReadOnlyForOthers(tree, "");
    bool dropped = false;
    const std::vector<std::string> lines = runUnprivileged(
            [this](std::ostream& out) {
                LogCapture log;
                Store store(kTable, dir(), kFile);
                out << "open=" << store.openPMdb() << "\n";
                for (const std::string& m : log.messages()) out << m;
            },
            &dropped);
    if (!dropped) GTEST_SKIP() << "cannot drop privileges to test directory permissions";
    EXPECT_THAT(lines,
                ElementsAre("open=-1",
                            "PMDB: openPMdb() 101: ERROR:Db=" + file() + " sql open failed, err=14",
                            ""));
    EXPECT_FALSE(std::filesystem::exists(file()));
}

TEST_F(PMDatabaseTest, ReadOnlyDirectoryWithFileLosesNothing) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to hand the tree to another user";
    {
        auto store = openStore();
        write(*store, makeRow("PSM", '1'));
    }
    makeReadOnlyForOthers(tree, file());
    bool dropped = false;
    const std::vector<std::string> lines = runUnprivileged(
            [this](std::ostream& out) {
                LogCapture log;
                Store store(kTable, dir(), kFile);
                pmdbError status = store.openPMdb();
                if (status == kPmdbSuccess) status = store.createPMdbTables();
                out << "status=" << status << "\n";
                if (status == kPmdbSuccess) {
                    store.enqueueDR(makeRow("vendor.new", '0'));
                    out << "write=" << store.writeCachedDRToDisk() << "\n";
                }
                out << "errors=" << log.countContaining("ERROR") << "\n";
            },
            &dropped);
    if (!dropped) GTEST_SKIP() << "cannot drop privileges to test directory permissions";
    // Either the store refuses to open, or it opens and its writes fail; in both cases with
    // logged errors and nothing thrown.
    ASSERT_GE(lines.size(), 2u) << ::testing::PrintToString(lines);
    if (lines[0] == "status=0") {
        EXPECT_EQ(lines[1], "write=-1");
    } else {
        EXPECT_EQ(lines[0], "status=-1");
    }
    EXPECT_THAT(lines, ::testing::Contains(::testing::StartsWith("errors=")));
    EXPECT_THAT(lines, ::testing::Not(::testing::Contains("errors=0")));

    ASSERT_EQ(chmod(dir().c_str(), 0755), 0) << strerror(errno);
    auto store = openStore();
    EXPECT_EQ(blobs(store->readAllocateDR(PMDBDataRowKey{})), "1");
}

}  // namespace
