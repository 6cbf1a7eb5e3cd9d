#include "pmdb/PMDatabase.h"

#include <sqlite3.h>

#include <utility>

#include "platform/PlatformLogSites.h"
#include "pmdb/PSMReferenceOutput.h"
#include "pmdb/Statement.h"
#include "pmdb/Transaction.h"

namespace site = pwr::site;

namespace {

// One read hands back at most this many rows.
constexpr int kMaxRowsPerRead = 10000;

// The store's error line for a failed SQLite call of one table, "sql:ERROR:Dbt=<table> info=<...>"
// with SQLite's result code or message, at the site of the failed call.
class SqlErrors {
  public:
    explicit SqlErrors(const std::string& table) : mTable(table.c_str()) {}

    // Logs `rc` at `At` unless it is `expected`; whether it was.
    template <const pwr::LogSite& At>
    bool check(int rc, int expected = SQLITE_OK) const {
        if (rc == expected) return true;
        PWR_LOG_AT(At, mTable, rc);
        return false;
    }
    template <const pwr::LogSite& At>
    void message(const std::string& text) const {
        PWR_LOG_AT(At, mTable, text.c_str());
    }

  private:
    const char* const mTable;
};

int exec(sqlite3* db, const char* sql) {
    return sqlite3_exec(db, sql, nullptr, nullptr, nullptr);
}

// The text of a result column, or empty when it is NULL.
std::string columnString(sqlite3_stmt* stmt, int column) {
    const unsigned char* text = sqlite3_column_text(stmt, column);
    if (text == nullptr) return std::string();
    return std::string(reinterpret_cast<const char*>(text),
                       static_cast<size_t>(sqlite3_column_bytes(stmt, column)));
}

}  // namespace

template <typename Row>
void PMDatabase<Row>::ConnectionCloser::operator()(sqlite3* db) const {
    sqlite3_close_v2(db);
}

template <typename Row>
struct PMDatabase<Row>::FlushStatements {
    Statement insert;
    Statement update;
    Statement begin;
    Statement commit;
    Statement rollback;
};

template <typename Row>
PMDatabase<Row>::PMDatabase(std::string tableName, std::string directory, std::string fileName)
    : PMDBDataTable<Row>(std::move(tableName)),
      mDirectory(std::move(directory)),
      mFileName(std::move(fileName)) {}

template <typename Row>
PMDatabase<Row>::~PMDatabase() {
    writeCachedDRToDisk();
    closePMdb();
}

template <typename Row>
std::string PMDatabase<Row>::path() const {
    return mFileName.empty() ? std::string(":memory:") : mDirectory + mFileName;
}

template <typename Row>
bool PMDatabase<Row>::isOpen() {
    pwr::MutexLock lock(mDbMutex);
    return mDb != nullptr;
}

template <typename Row>
pmdbError PMDatabase<Row>::openPMdb() {
    pwr::MutexLock lock(mDbMutex);
    if (mDb != nullptr) return kPmdbSuccess;
    const std::string file = path();
    sqlite3* db = nullptr;
    int rc =
            sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    // SQLite hands out a connection even when the open fails; it must be closed all the same.
    mDb.reset(db);
    if (rc != SQLITE_OK) {
        PWR_LOG_AT(site::kDbOpenFailed, file.c_str(), rc);
        closeLocked();
        return kPmdbFailure;
    }
    // Writers then never block the readers; a failure leaves the default journal in use.
    if (!mFileName.empty() && exec(db, "PRAGMA journal_mode=WAL") != SQLITE_OK) {
        SqlErrors(file).message<site::kDbJournalMode>(sqlite3_errmsg(db));
    }
    return kPmdbSuccess;
}

template <typename Row>
pmdbError PMDatabase<Row>::createPMdbTables() {
    pwr::MutexLock lock(mDbMutex);
    sqlite3* db = mDb.get();
    if (db == nullptr) return kPmdbFailure;
    const std::string sql = "CREATE TABLE IF NOT EXISTS " + this->mTableName +
                            "(intcol1 INTEGER, appName TEXT NOT null, rsvdName TEXT, blob BLOB)";
    if (exec(db, sql.c_str()) != SQLITE_OK) {
        PWR_LOG_AT(site::kDbCreateTable, this->mTableName.c_str(), sqlite3_errmsg(db));
        return kPmdbFailure;
    }
    return kPmdbSuccess;
}

template <typename Row>
std::vector<std::unique_ptr<Row>> PMDatabase<Row>::readAllocateDR(const PMDBDataRowKey& key) {
    std::vector<std::unique_ptr<Row>> rows;
    pwr::MutexLock lock(mDbMutex);
    sqlite3* db = mDb.get();
    if (db == nullptr) return rows;
    const SqlErrors errors(this->mTableName);
    std::string sql = "SELECT *, rowid FROM " + this->mTableName + " ";
    build_query_for_where_clause(key, sql);

    Statement stmt;
    if (stmt.prepare(db, sql) != SQLITE_OK) {
        errors.message<site::kDbReadPrepare>(sqlite3_errmsg(db));
        return rows;
    }
    sqlite3_stmt* s = stmt.get();
    int remaining = kMaxRowsPerRead - 1;
    bool limitReached = false;
    while (sqlite3_step(s) == SQLITE_ROW) {
        auto row = std::make_unique<Row>();
        if (sqlite3_column_text(s, 0) != nullptr) row->intcol1 = sqlite3_column_int(s, 0);
        row->appName = columnString(s, 1);
        row->rsvdName = columnString(s, 2);
        const void* blob = sqlite3_column_blob(s, 3);
        if (blob != nullptr && sqlite3_column_bytes(s, 3) > 0) {
            row->blob = *static_cast<const char*>(blob);
        }
        row->rowid = sqlite3_column_int64(s, 4);
        rows.push_back(std::move(row));
        if (remaining-- == 0) {
            limitReached = true;
            break;
        }
    }
    // The statement is left mid-result at the limit; finalizing it is enough then.
    if (!limitReached) errors.check<site::kDbReadReset>(sqlite3_reset(s));
    errors.check<site::kDbReadFinalize>(stmt.finalize());
    return rows;
}

template <typename Row>
int PMDatabase<Row>::getCountDR(const PMDBDataRowKey& key) {
    pwr::MutexLock lock(mDbMutex);
    sqlite3* db = mDb.get();
    if (db == nullptr) return 0;
    const SqlErrors errors(this->mTableName);
    std::string sql = "SELECT COUNT(*) FROM " + this->mTableName + " ";
    build_query_for_where_clause(key, sql);

    Statement stmt;
    if (stmt.prepare(db, sql) != SQLITE_OK) {
        errors.message<site::kDbCountPrepare>(sqlite3_errmsg(db));
        return 0;
    }
    int count = 0;
    if (sqlite3_step(stmt.get()) == SQLITE_ROW) count = sqlite3_column_int(stmt.get(), 0);
    errors.check<site::kDbCountFinalize>(stmt.finalize());
    return count;
}

template <typename Row>
void PMDatabase<Row>::deleteAllDR(const PMDBDataRowKey& key) {
    pwr::MutexLock lock(mDbMutex);
    sqlite3* db = mDb.get();
    if (db == nullptr) return;
    const SqlErrors errors(this->mTableName);
    std::string sql = "DELETE FROM " + this->mTableName + " ";
    build_query_for_where_clause(key, sql);

    Statement stmt;
    if (stmt.prepare(db, sql) != SQLITE_OK) {
        errors.message<site::kDbDeletePrepare>(sqlite3_errmsg(db));
        return;
    }
    // The count of deleted rows is fetched for a trace; nothing depends on it.
    if (errors.check<site::kDbDeleteStep>(sqlite3_step(stmt.get()), SQLITE_DONE))
        (void)sqlite3_changes(db);
    errors.check<site::kDbDeleteFinalize>(stmt.finalize());
}

template <typename Row>
pmdbError PMDatabase<Row>::prepareFlushStatementsLocked() {
    if (mFlush != nullptr) return kPmdbSuccess;
    sqlite3* db = mDb.get();
    auto statements = std::make_unique<FlushStatements>();
    if (statements->insert.prepare(db, "INSERT INTO " + this->mTableName +
                                               "(intcol1, appName, rsvdName, blob) VALUES "
                                               "(?,?,?,?)") != SQLITE_OK ||
        statements->update.prepare(db, "UPDATE " + this->mTableName + " " +
                                               "SET (intcol1, appName, rsvdName, blob) = "
                                               "(?,?,?,?) WHERE (rowid) = (?)") != SQLITE_OK ||
        statements->begin.prepare(db, "BEGIN IMMEDIATE TRANSACTION;") != SQLITE_OK ||
        statements->commit.prepare(db, "COMMIT TRANSACTION;") != SQLITE_OK ||
        statements->rollback.prepare(db, "ROLLBACK TRANSACTION;") != SQLITE_OK) {
        PWR_LOG_AT(site::kDbFlushPrepare, this->mTableName.c_str(), sqlite3_errmsg(db));
        return kPmdbFailure;
    }
    mFlush = std::move(statements);
    return kPmdbSuccess;
}

template <typename Row>
pmdbError PMDatabase<Row>::writeCachedDRToDisk() {
    pwr::MutexLock lock(mDbMutex);
    sqlite3* db = mDb.get();
    if (db == nullptr) return kPmdbFailure;
    // Prepared once per connection: parsing them on every flush would cost as much as the
    // write itself on a fast file system.
    if (prepareFlushStatementsLocked() != kPmdbSuccess) return kPmdbFailure;
    FlushStatements& st = *mFlush;
    const SqlErrors errors(this->mTableName);
    std::string error;

    pmdbError status = kPmdbSuccess;
    // IMMEDIATE takes the write lock now, so the transaction cannot fail halfway for want of it.
    // Without a transaction every row still goes out on its own.
    Transaction transaction(db, st.begin, st.commit, st.rollback);
    if (transaction.begin(&error) != SQLITE_OK) {
        status = kPmdbFailure;
        errors.message<site::kDbFlushBegin>(error);
        if (transaction.rollback(&error) != SQLITE_OK)
            errors.message<site::kDbFlushBeginRollback>(error);
    }

    // Bindings are static and never cleared between rows: a parameter that a row leaves unbound
    // keeps the value of the row written before it on the same statement. So every drained row
    // stays alive until the bindings are cleared after the loop, which also gives the next flush
    // unbound parameters, as freshly prepared statements would have.
    std::vector<std::unique_ptr<Row>> drained;
    while (std::unique_ptr<Row> next = this->dequeueDR()) {
        drained.push_back(std::move(next));
        const Row& row = *drained.back();
        const bool isUpdate = row.rowid != 0;
        sqlite3_stmt* s = isUpdate ? st.update.get() : st.insert.get();
        if (row.intcol1 != kPmdbIntUnset)
            errors.check<site::kDbBindInt>(sqlite3_bind_int(s, 1, row.intcol1));
        if (!row.appName.empty()) {
            errors.check<site::kDbBindName>(sqlite3_bind_text(
                    s, 2, row.appName.data(), static_cast<int>(row.appName.size()), SQLITE_STATIC));
        }
        if (!row.rsvdName.empty()) {
            errors.check<site::kDbBindReserved>(
                    sqlite3_bind_text(s, 3, row.rsvdName.data(),
                                      static_cast<int>(row.rsvdName.size()), SQLITE_STATIC));
        }
        errors.check<site::kDbBindBlob>(sqlite3_bind_blob(s, 4, &row.blob, 1, SQLITE_STATIC));
        if (isUpdate)
            errors.check<site::kDbBindRowid>(sqlite3_bind_int(s, 5, static_cast<int>(row.rowid)));
        if (!errors.check<site::kDbFlushStep>(sqlite3_step(s), SQLITE_DONE)) status = kPmdbFailure;
        errors.check<site::kDbFlushReset>(sqlite3_reset(s));
    }
    sqlite3_clear_bindings(st.insert.get());
    sqlite3_clear_bindings(st.update.get());
    drained.clear();

    if (transaction.commit(&error) != SQLITE_OK) {
        status = kPmdbFailure;
        errors.message<site::kDbFlushCommit>(error);
        if (transaction.rollback(&error) != SQLITE_OK)
            errors.message<site::kDbFlushCommitRollback>(error);
    }
    return status;
}

template <typename Row>
void PMDatabase<Row>::closePMdb() {
    pwr::MutexLock lock(mDbMutex);
    closeLocked();
}

template <typename Row>
void PMDatabase<Row>::closeLocked() {
    // The statements go first: a connection with live statements does not close.
    mFlush.reset();
    sqlite3* db = mDb.release();
    if (db == nullptr) return;
    int rc = sqlite3_close(db);
    if (rc != SQLITE_OK) {
        PWR_LOG_AT(site::kDbCloseFailed, path().c_str(), rc);
        // Still open: SQLite releases it once nothing uses it any more.
        sqlite3_close_v2(db);
    }
}

template <typename Row>
void PMDatabase<Row>::build_query_for_where_clause(const PMDBDataRowKey& key, std::string& query) {
    std::string columns;
    std::string values;
    auto add = [&](const char* column, const std::string& value) {
        if (!columns.empty()) {
            columns += ",";
            values += ",";
        }
        columns += column;
        values += value;
    };
    // Values are inlined, not bound, and text is not escaped: keys are property names and fixed
    // words.
    if (!key.appName.empty()) add("appName", "'" + key.appName + "'");
    if (!key.rsvdName.empty()) add("rsvdName", "'" + key.rsvdName + "'");
    if (key.intcol1 != kPmdbIntUnset) add("intcol1", std::to_string(key.intcol1));
    if (columns.empty()) return;
    query += "WHERE (" + columns + ") = (" + values + ") ";
}

template class PMDatabase<PSMReferenceOutput>;
