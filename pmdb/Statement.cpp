#include "pmdb/Statement.h"

#include <sqlite3.h>

Statement::~Statement() {
    sqlite3_finalize(mStmt);
}

int Statement::prepare(sqlite3* db, const std::string& sql) {
    sqlite3_finalize(mStmt);
    mStmt = nullptr;
    return sqlite3_prepare_v2(db, sql.c_str(), static_cast<int>(sql.size()), &mStmt, nullptr);
}

int Statement::run(sqlite3* db, std::string* error) {
    int rc = sqlite3_step(mStmt);
    if (rc == SQLITE_DONE) rc = SQLITE_OK;
    if (rc != SQLITE_OK) *error = sqlite3_errmsg(db);
    sqlite3_reset(mStmt);
    return rc;
}

int Statement::finalize() {
    const int rc = sqlite3_finalize(mStmt);
    mStmt = nullptr;
    return rc;
}
