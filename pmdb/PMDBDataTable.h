#pragma once

#include <cstddef>
#include <list>
#include <memory>
#include <string>

#include "platform/Mutex.h"

// The write-behind cache of a record store: rows queued by writers until the store flushes them.
// Defined for the row types instantiated in PMDBDataTable.cpp.
template <typename Row>
class PMDBDataTable {
  public:
    explicit PMDBDataTable(std::string tableName);
    // Frees the rows still queued, saying how many were never written.
    virtual ~PMDBDataTable();
    PMDBDataTable(const PMDBDataTable&) = delete;
    PMDBDataTable& operator=(const PMDBDataTable&) = delete;

    // Appends `row` at the back of the cache; the store's next flush writes it.
    void enqueueDR(std::unique_ptr<Row> row) EXCLUDES(mCacheMutex);
    // Number of rows waiting to be written.
    size_t cachedCount() EXCLUDES(mCacheMutex);
    const std::string& tableName() const { return mTableName; }

  protected:
    // Unlinks and returns the front row; null when the cache is empty.
    std::unique_ptr<Row> dequeueDR() EXCLUDES(mCacheMutex);

    const std::string mTableName;

  private:
    // Held only to link or unlink one row, never across a database call.
    pwr::Mutex mCacheMutex;
    std::list<std::unique_ptr<Row>> mCache GUARDED_BY(mCacheMutex);
};
