#pragma once

// A second, independent connection to a database file, for checking what the record store left
// on disk without going through it.

#include <sqlite3.h>

#include <string>
#include <vector>

namespace pwr::test {

class SqliteProbe {
  public:
    // Opens `path` read-write without creating it; ok() says whether that worked.
    explicit SqliteProbe(const std::string& path) {
        if (sqlite3_open_v2(path.c_str(), &mDb, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) {
            sqlite3_close(mDb);
            mDb = nullptr;
        }
    }
    ~SqliteProbe() { sqlite3_close_v2(mDb); }
    SqliteProbe(const SqliteProbe&) = delete;
    SqliteProbe& operator=(const SqliteProbe&) = delete;

    bool ok() const { return mDb != nullptr; }

    // Every row of the statement's result, each column as text ("NULL" for NULL); a failure
    // comes back as one row holding "ERROR: " and SQLite's message.
    std::vector<std::vector<std::string>> query(const std::string& sql) const {
        std::vector<std::vector<std::string>> rows;
        if (mDb == nullptr) return {{"ERROR: not open"}};
        sqlite3_stmt* stmt = nullptr;
        if (sqlite3_prepare_v2(mDb, sql.c_str(), -1, &stmt, nullptr) != SQLITE_OK) {
            return {{std::string("ERROR: ") + sqlite3_errmsg(mDb)}};
        }
        int rc;
        while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
            std::vector<std::string> row;
            for (int i = 0; i < sqlite3_column_count(stmt); ++i) {
                const unsigned char* text = sqlite3_column_text(stmt, i);
                row.push_back(text == nullptr ? std::string("NULL")
                                              : std::string(reinterpret_cast<const char*>(text),
                                                            sqlite3_column_bytes(stmt, i)));
            }
            rows.push_back(std::move(row));
        }
        if (rc != SQLITE_DONE) rows = {{std::string("ERROR: ") + sqlite3_errmsg(mDb)}};
        sqlite3_finalize(stmt);
        return rows;
    }

    // The first column of the first row, or "" when there is none.
    std::string scalar(const std::string& sql) const {
        auto rows = query(sql);
        return rows.empty() || rows[0].empty() ? std::string() : rows[0][0];
    }

  private:
    sqlite3* mDb = nullptr;
};

}  // namespace pwr::test
