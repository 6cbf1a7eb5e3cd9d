#include "pmdb/PMDBDataTable.h"

#include "platform/PlatformLogSites.h"
#include "pmdb/PSMReferenceOutput.h"

template <typename Row>
PMDBDataTable<Row>::PMDBDataTable(std::string tableName) : mTableName(std::move(tableName)) {}

template <typename Row>
PMDBDataTable<Row>::~PMDBDataTable() {
    pwr::MutexLock lock(mCacheMutex);
    if (!mCache.empty()) {
        PWR_LOG_AT(pwr::site::kDbRowsLeft, mTableName.c_str(), 0, static_cast<int>(mCache.size()));
    }
    mCache.clear();
}

template <typename Row>
void PMDBDataTable<Row>::enqueueDR(std::unique_ptr<Row> row) {
    pwr::MutexLock lock(mCacheMutex);
    mCache.push_back(std::move(row));
}

template <typename Row>
size_t PMDBDataTable<Row>::cachedCount() {
    pwr::MutexLock lock(mCacheMutex);
    return mCache.size();
}

template <typename Row>
std::unique_ptr<Row> PMDBDataTable<Row>::dequeueDR() {
    pwr::MutexLock lock(mCacheMutex);
    if (mCache.empty()) return nullptr;
    std::unique_ptr<Row> row = std::move(mCache.front());
    mCache.pop_front();
    return row;
}

template class PMDBDataTable<PSMReferenceOutput>;
