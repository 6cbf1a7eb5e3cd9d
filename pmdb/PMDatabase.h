#pragma once

#include <memory>
#include <string>
#include <vector>

#include "pmdb/PMDBDataRowKey.h"
#include "pmdb/PMDBDataTable.h"

struct sqlite3;

// A small SQLite record store of one-byte values under text keys, kept across restarts of the
// service. Writers queue rows in the cache and flush it in one transaction; readers query the
// file directly. Failures are logged under "PMDB" and never thrown: every operation then returns
// its neutral result. Instantiated in PMDatabase.cpp for PSMReferenceOutput.
//
// The connection is shared by every caller without a lock of its own: SQLite serialises the
// calls, and only the cache needs the table's mutex.
template <typename Row>
class PMDatabase : public PMDBDataTable<Row> {
  public:
    // Opens nothing yet. The file is `directory` + `fileName`; an empty `fileName` selects an
    // in-memory database. The directory must exist: it is never created here.
    PMDatabase(std::string tableName, std::string directory, std::string fileName);
    // Flushes the cache and closes the connection.
    ~PMDatabase() override;

    // Opens the connection, and switches a file-backed database to write-ahead logging.
    pmdbError openPMdb();
    // Creates the table if it is missing.
    pmdbError createPMdbTables();
    // The rows matching `key` in table order, at most 10,000; empty on any failure.
    std::vector<std::unique_ptr<Row>> readAllocateDR(const PMDBDataRowKey& key);
    // Number of rows matching `key`; 0 on any failure.
    int getCountDR(const PMDBDataRowKey& key);
    // Deletes every row matching `key`.
    void deleteAllDR(const PMDBDataRowKey& key);
    // Writes every queued row in one transaction: rowid 0 inserts, any other rowid updates that
    // row. A row whose write fails is dropped. With no connection the rows stay queued.
    pmdbError writeCachedDRToDisk();
    // Closes the connection and forgets it; later operations find no connection.
    void closePMdb();

    bool isOpen() const { return mDb != nullptr; }
    // The file opened, or ":memory:".
    std::string path() const;

    // Appends "WHERE (columns) = (values) " for the parts of `key` that are set, or nothing at all
    // when none is. Text values are quoted but not escaped: a key holding a single quote yields
    // a statement that does not compile.
    static void build_query_for_where_clause(const PMDBDataRowKey& key, std::string& query);

  private:
    struct ConnectionCloser {
        void operator()(sqlite3* db) const;
    };

    std::unique_ptr<sqlite3, ConnectionCloser> mDb;
    const std::string mDirectory;
    const std::string mFileName;
};
