#include "pmdb/PMDatabase.h"

#include <sqlite3.h>

#include <utility>

#include "platform/Log.h"
#include "pmdb/PSMReferenceOutput.h"

using pwr::kModPmdb;

namespace {

// One read hands back at most this many rows.
constexpr int kMaxRowsPerRead = 10000;

// Owns one prepared statement. finalize() returns SQLite's result so that callers can log it;
// the destructor finalizes whatever an early return left behind.
class Statement {
  public:
    Statement() = default;
    ~Statement() { sqlite3_finalize(mStmt); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    int prepare(sqlite3* db, const std::string& sql) {
        return sqlite3_prepare_v2(db, sql.c_str(), static_cast<int>(sql.size()), &mStmt, nullptr);
    }
    sqlite3_stmt* get() const { return mStmt; }
    // Steps a statement that returns no rows and resets it for the next run. On failure `error`
    // takes SQLite's message.
    int run(sqlite3* db, std::string* error) {
        int rc = sqlite3_step(mStmt);
        if (rc == SQLITE_DONE) rc = SQLITE_OK;
        if (rc != SQLITE_OK) *error = sqlite3_errmsg(db);
        sqlite3_reset(mStmt);
        return rc;
    }
    int finalize() {
        int rc = sqlite3_finalize(mStmt);
        mStmt = nullptr;
        return rc;
    }

  private:
    sqlite3_stmt* mStmt = nullptr;
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
        PWR_LOG(kModPmdb, "openPMdb", 101, "ERROR:Db=%s sql open failed, err=%d\n", file.c_str(),
                rc);
        closeLocked();
        return kPmdbFailure;
    }
    // Writers then never block the readers; a failure leaves the default journal in use.
    if (!mFileName.empty() && exec(db, "PRAGMA journal_mode=WAL") != SQLITE_OK) {
        PWR_LOG(kModPmdb, "openPMdb", 108, "sql:ERROR:Dbt=%s info=%s\n", file.c_str(),
                sqlite3_errmsg(db));
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
        PWR_LOG(kModPmdb, "createPMdbTables", 124, "ERROR:Dbt=%s info=%s\n",
                this->mTableName.c_str(), sqlite3_errmsg(db));
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
    const char* table = this->mTableName.c_str();
    std::string sql = "SELECT *, rowid FROM " + this->mTableName + " ";
    build_query_for_where_clause(key, sql);

    Statement stmt;
    if (stmt.prepare(db, sql) != SQLITE_OK) {
        PWR_LOG(kModPmdb, "readAllocateDR", 142, "sql:ERROR:Dbt=%s info=%s\n", table,
                sqlite3_errmsg(db));
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
    if (!limitReached) {
        int rc = sqlite3_reset(s);
        if (rc != SQLITE_OK) {
            PWR_LOG(kModPmdb, "readAllocateDR", 170, "sql:ERROR:Dbt=%s info=%d\n", table, rc);
        }
    }
    int rc = stmt.finalize();
    if (rc != SQLITE_OK) {
        PWR_LOG(kModPmdb, "readAllocateDR", 175, "sql:ERROR:Dbt=%s info=%d\n", table, rc);
    }
    return rows;
}

template <typename Row>
int PMDatabase<Row>::getCountDR(const PMDBDataRowKey& key) {
    pwr::MutexLock lock(mDbMutex);
    sqlite3* db = mDb.get();
    if (db == nullptr) return 0;
    const char* table = this->mTableName.c_str();
    std::string sql = "SELECT COUNT(*) FROM " + this->mTableName + " ";
    build_query_for_where_clause(key, sql);

    Statement stmt;
    if (stmt.prepare(db, sql) != SQLITE_OK) {
        PWR_LOG(kModPmdb, "getCountDR", 190, "sql:ERROR:Dbt=%s info=%s\n", table,
                sqlite3_errmsg(db));
        return 0;
    }
    int count = 0;
    if (sqlite3_step(stmt.get()) == SQLITE_ROW) count = sqlite3_column_int(stmt.get(), 0);
    int rc = stmt.finalize();
    if (rc != SQLITE_OK) {
        PWR_LOG(kModPmdb, "getCountDR", 199, "sql:ERROR:Dbt=%s info=%d\n", table, rc);
    }
    return count;
}

template <typename Row>
void PMDatabase<Row>::deleteAllDR(const PMDBDataRowKey& key) {
    pwr::MutexLock lock(mDbMutex);
    sqlite3* db = mDb.get();
    if (db == nullptr) return;
    const char* table = this->mTableName.c_str();
    std::string sql = "DELETE FROM " + this->mTableName + " ";
    build_query_for_where_clause(key, sql);

    Statement stmt;
    if (stmt.prepare(db, sql) != SQLITE_OK) {
        PWR_LOG(kModPmdb, "deleteAllDR", 212, "sql:ERROR:Dbt=%s info=%s\n", table,
                sqlite3_errmsg(db));
        return;
    }
    int rc = sqlite3_step(stmt.get());
    if (rc == SQLITE_DONE) {
        // Fetched for a trace; nothing depends on how many rows went.
        (void)sqlite3_changes(db);
    } else {
        PWR_LOG(kModPmdb, "deleteAllDR", 218, "sql:ERROR:Dbt=%s info=%d\n", table, rc);
    }
    rc = stmt.finalize();
    if (rc != SQLITE_OK) {
        PWR_LOG(kModPmdb, "deleteAllDR", 222, "sql:ERROR:Dbt=%s info=%d\n", table, rc);
    }
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
        PWR_LOG(kModPmdb, "writeCachedDRToDisk", 240, "ERROR:Dbt=%s info=%s\n",
                this->mTableName.c_str(), sqlite3_errmsg(db));
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
    const char* table = this->mTableName.c_str();
    std::string error;

    pmdbError status = kPmdbSuccess;
    // IMMEDIATE takes the write lock now, so the transaction cannot fail halfway for want of it.
    // Without a transaction every row still goes out on its own.
    if (st.begin.run(db, &error) != SQLITE_OK) {
        status = kPmdbFailure;
        PWR_LOG(kModPmdb, "writeCachedDRToDisk", 247, "sql:ERROR:Dbt=%s info=%s\n", table,
                error.c_str());
        if (st.rollback.run(db, &error) != SQLITE_OK) {
            PWR_LOG(kModPmdb, "writeCachedDRToDisk", 250, "sql:ERROR:Dbt=%s info=%s\n", table,
                    error.c_str());
        }
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
        int rc;
        if (row.intcol1 != kPmdbIntUnset &&
            (rc = sqlite3_bind_int(s, 1, row.intcol1)) != SQLITE_OK) {
            PWR_LOG(kModPmdb, "writeCachedDRToDisk", 268, "sql:ERROR:Dbt=%s info=%d\n", table, rc);
        }
        if (!row.appName.empty() &&
            (rc = sqlite3_bind_text(s, 2, row.appName.data(), static_cast<int>(row.appName.size()),
                                    SQLITE_STATIC)) != SQLITE_OK) {
            PWR_LOG(kModPmdb, "writeCachedDRToDisk", 273, "sql:ERROR:Dbt=%s info=%d\n", table, rc);
        }
        if (!row.rsvdName.empty() && (rc = sqlite3_bind_text(s, 3, row.rsvdName.data(),
                                                             static_cast<int>(row.rsvdName.size()),
                                                             SQLITE_STATIC)) != SQLITE_OK) {
            PWR_LOG(kModPmdb, "writeCachedDRToDisk", 278, "sql:ERROR:Dbt=%s info=%d\n", table, rc);
        }
        if ((rc = sqlite3_bind_blob(s, 4, &row.blob, 1, SQLITE_STATIC)) != SQLITE_OK) {
            PWR_LOG(kModPmdb, "writeCachedDRToDisk", 282, "sql:ERROR:Dbt=%s info=%d\n", table, rc);
        }
        if (isUpdate && (rc = sqlite3_bind_int(s, 5, static_cast<int>(row.rowid))) != SQLITE_OK) {
            PWR_LOG(kModPmdb, "writeCachedDRToDisk", 287, "sql:ERROR:Dbt=%s info=%d\n", table, rc);
        }
        rc = sqlite3_step(s);
        if (rc != SQLITE_DONE) {
            status = kPmdbFailure;
            PWR_LOG(kModPmdb, "writeCachedDRToDisk", 291, "sql:ERROR:Dbt=%s info=%d\n", table, rc);
        }
        rc = sqlite3_reset(s);
        if (rc != SQLITE_OK) {
            PWR_LOG(kModPmdb, "writeCachedDRToDisk", 294, "sql:ERROR:Dbt=%s info=%d\n", table, rc);
        }
    }
    sqlite3_clear_bindings(st.insert.get());
    sqlite3_clear_bindings(st.update.get());
    drained.clear();

    if (st.commit.run(db, &error) != SQLITE_OK) {
        status = kPmdbFailure;
        PWR_LOG(kModPmdb, "writeCachedDRToDisk", 305, "sql:ERROR:Dbt=%s info=%s\n", table,
                error.c_str());
        if (st.rollback.run(db, &error) != SQLITE_OK) {
            PWR_LOG(kModPmdb, "writeCachedDRToDisk", 308, "sql:ERROR:Dbt=%s info=%s\n", table,
                    error.c_str());
        }
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
        PWR_LOG(kModPmdb, "closePMdb", 330, "ERROR:Db=%s sql close failed, err=%d\n",
                path().c_str(), rc);
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
