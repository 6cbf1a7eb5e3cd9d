// Power-saving state store: what the feature changed, kept in the record store so that it can be
// undone later, after a restart of the service too. A read consumes the key's rows, so each key
// holds at most one pending byte between a write and the next read.

#include <new>

#include "feature/PSMPowerOptFeature.h"
#include "platform/DevicePath.h"
#include "platform/Log.h"
#include "pmdb/PMDatabase.h"
#include "pmdb/PSMReferenceOutput.h"

using pwr::kModFeature;

namespace {

constexpr char kStoreTable[] = "PSMPOWEROPT";
// Opened, never created, by the store: the directory belongs to the device's image.
constexpr char kStoreDirectory[] = "/data/vendor/pwr/";
constexpr char kStoreFile[] = "InputPMDB.db";

}  // namespace

void PSMPowerOptFeature::pmDbInit() {
    if (mPmDatabase != nullptr) return;
    mPmDatabase.reset(new (std::nothrow) PMDatabase<PSMReferenceOutput>(
            kStoreTable, pwr::devicePath(kStoreDirectory), kStoreFile));
    if (mPmDatabase == nullptr) {
        if (debugEnabled) PWR_LOG(kModFeature, "pmDbInit", 1103, "DB handle is NULL");
        return;
    }
    mPmDbStatus = mPmDatabase->openPMdb();
    if (mPmDbStatus == kPmdbSuccess) mPmDbStatus = mPmDatabase->createPMdbTables();
    if (mPmDbStatus != kPmdbSuccess) {
        if (debugEnabled) {
            PWR_LOG(kModFeature, "pmDbInit", 1111,
                    "Error in DB initialization - createFeatureInputDb %d", kPmdbFailure);
        }
        // The feature carries on without persistence.
        mPmDatabase.reset();
    }
}

void PSMPowerOptFeature::pmDbWrite(std::string key, char value) {
    if (mPmDatabase == nullptr) return;
    auto row = std::make_unique<PSMReferenceOutput>();
    row->appName = key;
    row->blob = value;
    mPmDatabase->enqueueDR(std::move(row));
    mPmDatabase->writeCachedDRToDisk();
    if (debugEnabled) {
        PWR_LOG(kModFeature, "pmDbWrite", 1134,
                "Successfully written output to DB, DB Row key name=%s, writing properties %c",
                key.c_str(), value);
    }
}

char PSMPowerOptFeature::pmDbRead(std::string key) {
    PMDBDataRowKey rowKey;
    rowKey.appName = key;
    char result = 0;
    if (mPmDatabase == nullptr) return result;

    std::vector<std::unique_ptr<PSMReferenceOutput>> rows = mPmDatabase->readAllocateDR(rowKey);
    const int totalCount = mPmDatabase->getCountDR(rowKey);
    if (debugEnabled) {
        PWR_LOG(kModFeature, "pmDbRead", 1152,
                "ReferenceAlgo::runAlgo (totalCount , readCount) = (%d, %d) ", totalCount,
                static_cast<int>(rows.size()));
    }
    // Rows come back in table order, so the byte written last wins.
    for (size_t i = 0; i < rows.size(); ++i) {
        result = rows[i]->blob;
        if (debugEnabled) {
            PWR_LOG(kModFeature, "pmDbRead", 1158, "Reading properties[%d]=%c", static_cast<int>(i),
                    result);
        }
    }
    mPmDatabase->deleteAllDR(rowKey);
    return result;
}
