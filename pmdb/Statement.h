#pragma once

#include <string>

struct sqlite3;
struct sqlite3_stmt;

// The one owner of a prepared SQLite statement: finalized by finalize() or, at the latest, by the
// destructor, so that an early return leaves nothing behind.
class Statement {
  public:
    Statement() = default;
    ~Statement();
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    // Prepares `sql` on `db`; SQLite's result.
    int prepare(sqlite3* db, const std::string& sql);
    sqlite3_stmt* get() const { return mStmt; }
    // Steps a statement that returns no rows and resets it for the next run: SQLITE_OK when it
    // ran to the end, else SQLite's result with `error` set to the connection's message.
    int run(sqlite3* db, std::string* error);
    // Finalizes now; SQLite's result, for the caller to log.
    int finalize();

  private:
    sqlite3_stmt* mStmt = nullptr;
};
