#pragma once

#include <string>

#include "pmdb/Statement.h"

// A guard for one transaction over prepared BEGIN, COMMIT and ROLLBACK statements: whatever
// leaves the scope after a successful begin() without commit() or rollback() (an exception, an
// early return) rolls the transaction back. Nothing is thrown and nothing is logged: each step
// hands back SQLite's result and message for the caller to report.
class Transaction {
  public:
    Transaction(sqlite3* db, Statement& begin, Statement& commit, Statement& rollback)
        : mDb(db), mBegin(begin), mCommit(commit), mRollback(rollback) {}
    // Rolls back a transaction that was begun and neither committed nor rolled back.
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    // Runs BEGIN; SQLITE_OK or SQLite's result with `error` set.
    int begin(std::string* error);
    // Runs COMMIT, whether or not begin() succeeded; the guard has nothing left to undo after
    // it, even when it fails (the caller then decides whether to roll back).
    int commit(std::string* error);
    // Runs ROLLBACK, whether or not begin() succeeded.
    int rollback(std::string* error);

  private:
    sqlite3* const mDb;
    Statement& mBegin;
    Statement& mCommit;
    Statement& mRollback;
    bool mPending = false;  // begun, and neither committed nor rolled back yet
};
