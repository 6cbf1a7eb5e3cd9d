// Cost of saving one value with pmDbWrite, beside the floor measured in the same run: one INSERT
// in one IMMEDIATE transaction through statements prepared once, on the same file system, in the
// same journal mode and table. Both run on tmpfs (/dev/shm) and on disk (/var/tmp); the program
// prints the ratio pmDbWrite / floor for each at the end.

#include <android/log.h>
#include <sqlite3.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>

#include <benchmark/benchmark.h>

#include "bench/BenchSupport.h"
#include "feature/PSMPowerOptFeature.h"
#include "platform/hostshim/DeviceRoot.h"
#include "tests/support/TestConfig.h"

namespace {

constexpr char kTmpfs[] = "/dev/shm";
constexpr char kDisk[] = "/var/tmp";
constexpr char kKey[] = "vendor.pwr.bench.prop";

// A fresh fake device root with the store's directory, under `base`; removed afterwards.
class BenchRoot {
  public:
    explicit BenchRoot(const std::string& base) {
        std::string templ = base + "/pwrbench.XXXXXX";
        if (mkdtemp(templ.data()) == nullptr) throw std::runtime_error("mkdtemp in " + base);
        mRoot = templ;
        std::filesystem::create_directories(mRoot + "/data/vendor/pwr");
    }
    ~BenchRoot() {
        std::error_code ec;
        std::filesystem::remove_all(mRoot, ec);
    }
    BenchRoot(const BenchRoot&) = delete;
    BenchRoot& operator=(const BenchRoot&) = delete;

    const std::string& root() const { return mRoot; }
    std::string storeDir() const { return mRoot + "/data/vendor/pwr/"; }

  private:
    std::string mRoot;
};

void check(int rc, sqlite3* db, const char* what) {
    if (rc != SQLITE_OK && rc != SQLITE_DONE) {
        throw std::runtime_error(std::string(what) + ": " + sqlite3_errmsg(db));
    }
}

// The floor: what one durable insert of one row costs on this file system at the least.
class FloorStore {
  public:
    explicit FloorStore(const std::string& path) {
        check(sqlite3_open_v2(path.c_str(), &mDb, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE,
                              nullptr),
              mDb, "open");
        check(sqlite3_exec(mDb, "PRAGMA journal_mode=WAL", nullptr, nullptr, nullptr), mDb, "wal");
        check(sqlite3_exec(mDb,
                           "CREATE TABLE IF NOT EXISTS PSMPOWEROPT(intcol1 INTEGER, appName TEXT "
                           "NOT null, rsvdName TEXT, blob BLOB)",
                           nullptr, nullptr, nullptr),
              mDb, "create");
        prepare("BEGIN IMMEDIATE TRANSACTION;", &mBegin);
        prepare("INSERT INTO PSMPOWEROPT(intcol1, appName, rsvdName, blob) VALUES (?,?,?,?)",
                &mInsert);
        prepare("COMMIT TRANSACTION;", &mCommit);
    }
    ~FloorStore() {
        sqlite3_finalize(mBegin);
        sqlite3_finalize(mInsert);
        sqlite3_finalize(mCommit);
        sqlite3_close(mDb);
    }
    FloorStore(const FloorStore&) = delete;
    FloorStore& operator=(const FloorStore&) = delete;

    void insert(const char* key, char value) {
        step(mBegin, "begin");
        check(sqlite3_bind_text(mInsert, 2, key, -1, SQLITE_STATIC), mDb, "bind");
        mValue = value;
        check(sqlite3_bind_blob(mInsert, 4, &mValue, 1, SQLITE_STATIC), mDb, "bind");
        step(mInsert, "insert");
        step(mCommit, "commit");
    }

  private:
    void prepare(const char* sql, sqlite3_stmt** stmt) {
        check(sqlite3_prepare_v2(mDb, sql, -1, stmt, nullptr), mDb, sql);
    }
    void step(sqlite3_stmt* stmt, const char* what) {
        check(sqlite3_step(stmt), mDb, what);
        check(sqlite3_reset(stmt), mDb, what);
    }

    sqlite3* mDb = nullptr;
    sqlite3_stmt* mBegin = nullptr;
    sqlite3_stmt* mInsert = nullptr;
    sqlite3_stmt* mCommit = nullptr;
    char mValue = 0;
};

void BM_InsertFloor(benchmark::State& state, const char* base) {
    BenchRoot root(base);
    FloorStore store(root.storeDir() + "Floor.db");
    for (auto _ : state) store.insert(kKey, '1');
}

void BM_PmDbWrite(benchmark::State& state, const char* base) {
    BenchRoot root(base);
    pwr::host::setDeviceRoot(root.root());
    auto feature = std::make_unique<PSMPowerOptFeature>(pwr::test::minimalConfig());
    feature->pmDbInit();
    for (auto _ : state) feature->pmDbWrite(kKey, '1');
    feature.reset();
    pwr::host::setDeviceRoot("");
}

void configure(benchmark::internal::Benchmark* b) {
    // Real time: on disk the cost is mostly the wait for the journal to reach the device.
    b->Unit(benchmark::kMicrosecond)->UseRealTime()->Repetitions(5);
}

// The repetitions of the four run interleaved in random order (set in main), so that a floor and
// its pmDbWrite see the same state of the machine.
BENCHMARK_CAPTURE(BM_InsertFloor, tmpfs, kTmpfs)->Apply(configure);
BENCHMARK_CAPTURE(BM_PmDbWrite, tmpfs, kTmpfs)->Apply(configure);
BENCHMARK_CAPTURE(BM_InsertFloor, disk, kDisk)->Apply(configure);
BENCHMARK_CAPTURE(BM_PmDbWrite, disk, kDisk)->Apply(configure);

void dropLogLine(const __android_logger_data*, const char*) {}

}  // namespace

int main(int argc, char** argv) {
    __android_log_set_logger(dropLogLine);
    if (!pwr::bench::initialize(argc, argv, {"--benchmark_enable_random_interleaving=true"})) {
        return 1;
    }
    pwr::bench::MedianReporter reporter;
    pwr::bench::run(reporter);
    // Medians: the file system's latency on a shared host swings by an order of magnitude
    // between repetitions, which the least of them would pick up.
    for (const std::string fs : {"tmpfs", "disk"}) {
        reporter.printRatio("pmDbWrite / floor on " + fs, "BM_PmDbWrite/" + fs,
                            "BM_InsertFloor/" + fs);
    }
    return 0;
}
