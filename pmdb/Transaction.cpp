#include "pmdb/Transaction.h"

#include <sqlite3.h>

Transaction::~Transaction() {
    std::string ignored;
    if (mPending) rollback(&ignored);
}

int Transaction::begin(std::string* error) {
    const int rc = mBegin.run(mDb, error);
    mPending = rc == SQLITE_OK;
    return rc;
}

int Transaction::commit(std::string* error) {
    mPending = false;
    return mCommit.run(mDb, error);
}

int Transaction::rollback(std::string* error) {
    mPending = false;
    return mRollback.run(mDb, error);
}
