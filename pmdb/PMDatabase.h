#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/Mutex.h"
#include "pmdb/PMDBDataRowKey.h"
#include "pmdb/PMDBDataTable.h"

struct sqlite3;

// A small SQLite record store of one-byte values under text keys, kept across restarts of the
// service. Writers queue rows in the cache and flush it in one transaction; readers query the
// file directly. Failures are logged under "PMDB" and never thrown: every operation then returns
// its neutral result. Instantiated in PMDatabase.cpp for PSMReferenceOutput.
//
// Threads: the feature's event and timer threads share one connection. Each operation holds the
// connection's mutex for its whole length, because SQLite builds in multi-thread mode (as on a
// device) do not serialise a shared connection, and because a flush's transaction must not take
// in, or roll back, another thread's statements. Lock order: connection mutex, then the cache's.
template <typename Row>
class PMDatabase : public PMDBDataTable<Row> {
  public:
    // Opens nothing yet. The file is `directory` + `fileName`; an empty `fileName` selects an
    // in-memory database. The directory must exist: it is never created here.
    PMDatabase(std::string tableName, std::string directory, std::string fileName);
    // Flushes the cache and closes the connection.
    ~PMDatabase() override;

    // Opens the connection, and switches a file-backed database to write-ahead logging.
    pmdbError openPMdb() EXCLUDES(mDbMutex);
    // Creates the table if it is missing.
    pmdbError createPMdbTables() EXCLUDES(mDbMutex);
    // The rows matching `key` in table order, at most 10,000; empty on any failure.
    std::vector<std::unique_ptr<Row>> readAllocateDR(const PMDBDataRowKey& key) EXCLUDES(mDbMutex);
    // Number of rows matching `key`; 0 on any failure.
    int getCountDR(const PMDBDataRowKey& key) EXCLUDES(mDbMutex);
    // Deletes every row matching `key`.
    void deleteAllDR(const PMDBDataRowKey& key) EXCLUDES(mDbMutex);
    // Writes every queued row in one transaction: rowid 0 inserts, any other rowid updates that
    // row. A row whose write fails is dropped. With no connection, or when the statements cannot
    // be prepared, the rows stay queued.
    pmdbError writeCachedDRToDisk() EXCLUDES(mDbMutex);
    // Closes the connection and forgets it; later operations find no connection.
    void closePMdb() EXCLUDES(mDbMutex);

    bool isOpen() EXCLUDES(mDbMutex);
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
    // The flush's statements, prepared on the first flush and kept until the connection closes.
    struct FlushStatements;

    pmdbError prepareFlushStatementsLocked() REQUIRES(mDbMutex);
    void closeLocked() REQUIRES(mDbMutex);

    pwr::Mutex mDbMutex;
    // Declared before the statements so that it is destroyed after them.
    std::unique_ptr<sqlite3, ConnectionCloser> mDb GUARDED_BY(mDbMutex);
    std::unique_ptr<FlushStatements> mFlush GUARDED_BY(mDbMutex);
    const std::string mDirectory;
    const std::string mFileName;
};
