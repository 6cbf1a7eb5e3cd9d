#include "feature/StateStore.h"

#include <new>

#include "feature/LogSites.h"
#include "platform/DevicePath.h"
#include "pmdb/PMDatabase.h"
#include "pmdb/PSMReferenceOutput.h"

namespace {

constexpr char kStoreTable[] = "PSMPOWEROPT";
// Opened, never created, by the store: the directory belongs to the device's image.
constexpr char kStoreDirectory[] = "/data/vendor/pwr/";
constexpr char kStoreFile[] = "InputPMDB.db";

}  // namespace

StateStore::StateStore(const bool& debugEnabled) : mDebugEnabled(debugEnabled) {}

// The database writes its cached rows as it closes.
StateStore::~StateStore() = default;

void StateStore::pmDbInit() {
    if (mPmDatabase != nullptr) return;
    mPmDatabase.reset(new (std::nothrow) PMDatabase<PSMReferenceOutput>(
            kStoreTable, pwr::devicePath(kStoreDirectory), kStoreFile));
    if (mPmDatabase == nullptr) {
        if (mDebugEnabled) PWR_LOG_AT(pwr::site::kDbHandleNull);
        return;
    }
    mPmDbStatus = mPmDatabase->openPMdb();
    if (mPmDbStatus == kPmdbSuccess) mPmDbStatus = mPmDatabase->createPMdbTables();
    if (mPmDbStatus != kPmdbSuccess) {
        if (mDebugEnabled) {
            PWR_LOG_AT(pwr::site::kDbInitFailed, kPmdbFailure);
        }
        // The feature carries on without persistence.
        mPmDatabase.reset();
    }
}

void StateStore::pmDbWrite(const std::string& key, char value) {
    if (mPmDatabase == nullptr) return;
    auto row = std::make_unique<PSMReferenceOutput>();
    row->appName = key;
    row->blob = value;
    mPmDatabase->enqueueDR(std::move(row));
    mPmDatabase->writeCachedDRToDisk();
    if (mDebugEnabled) {
        PWR_LOG_AT(pwr::site::kDbWritten, key.c_str(), value);
    }
}

char StateStore::pmDbRead(const std::string& key) {
    PMDBDataRowKey rowKey;
    rowKey.appName = key;
    char result = 0;
    if (mPmDatabase == nullptr) return result;

    std::vector<std::unique_ptr<PSMReferenceOutput>> rows = mPmDatabase->readAllocateDR(rowKey);
    const int totalCount = mPmDatabase->getCountDR(rowKey);
    if (mDebugEnabled) {
        PWR_LOG_AT(pwr::site::kDbReadCounts, totalCount, static_cast<int>(rows.size()));
    }
    // Rows come back in table order, so the byte written last wins.
    for (size_t i = 0; i < rows.size(); ++i) {
        result = rows[i]->blob;
        if (mDebugEnabled) {
            PWR_LOG_AT(pwr::site::kDbReadRow, static_cast<int>(i), result);
        }
    }
    mPmDatabase->deleteAllDR(rowKey);
    return result;
}
