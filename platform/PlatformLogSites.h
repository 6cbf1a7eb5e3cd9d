#pragma once

// Every line the platform modules write (the record store, the performance helper and its probes,
// the classifier), by the place that writes it. As with the feature's sites, the code, the tests
// and the golden list tests/golden/platform-log-sites.txt name a line only through these.

#include "platform/Log.h"

namespace pwr::site {

// Record store: opening, closing and the table.
inline constexpr LogSite kDbOpenFailed{kModPmdb, "openPMdb", 101,
                                       "ERROR:Db=%s sql open failed, err=%d\n"};
inline constexpr LogSite kDbJournalMode{kModPmdb, "openPMdb", 108, "sql:ERROR:Dbt=%s info=%s\n"};
inline constexpr LogSite kDbCreateTable{kModPmdb, "createPMdbTables", 124,
                                        "ERROR:Dbt=%s info=%s\n"};
inline constexpr LogSite kDbCloseFailed{kModPmdb, "closePMdb", 330,
                                        "ERROR:Db=%s sql close failed, err=%d\n"};
inline constexpr LogSite kDbRowsLeft{kModPmdb, "~PMDBDataTable", 48,
                                     "ERROR:Dbt=%s blstSz=%d, clstSz=%d\n"};

// Record store: reads, counts and deletions ("info" is SQLite's message or result code).
inline constexpr LogSite kDbReadPrepare{kModPmdb, "readAllocateDR", 142,
                                        "sql:ERROR:Dbt=%s info=%s\n"};
inline constexpr LogSite kDbReadReset{kModPmdb, "readAllocateDR", 170,
                                      "sql:ERROR:Dbt=%s info=%d\n"};
inline constexpr LogSite kDbReadFinalize{kModPmdb, "readAllocateDR", 175,
                                         "sql:ERROR:Dbt=%s info=%d\n"};
inline constexpr LogSite kDbCountPrepare{kModPmdb, "getCountDR", 190, "sql:ERROR:Dbt=%s info=%s\n"};
inline constexpr LogSite kDbCountFinalize{kModPmdb, "getCountDR", 199,
                                          "sql:ERROR:Dbt=%s info=%d\n"};
inline constexpr LogSite kDbDeletePrepare{kModPmdb, "deleteAllDR", 212,
                                          "sql:ERROR:Dbt=%s info=%s\n"};
inline constexpr LogSite kDbDeleteStep{kModPmdb, "deleteAllDR", 218, "sql:ERROR:Dbt=%s info=%d\n"};
inline constexpr LogSite kDbDeleteFinalize{kModPmdb, "deleteAllDR", 222,
                                           "sql:ERROR:Dbt=%s info=%d\n"};

// Record store: writing the cache.
inline constexpr LogSite kDbFlushPrepare{kModPmdb, "writeCachedDRToDisk", 240,
                                         "ERROR:Dbt=%s info=%s\n"};
inline constexpr LogSite kDbFlushBegin{kModPmdb, "writeCachedDRToDisk", 247,
                                       "sql:ERROR:Dbt=%s info=%s\n"};
inline constexpr LogSite kDbFlushBeginRollback{kModPmdb, "writeCachedDRToDisk", 250,
                                               "sql:ERROR:Dbt=%s info=%s\n"};
inline constexpr LogSite kDbBindInt{kModPmdb, "writeCachedDRToDisk", 268,
                                    "sql:ERROR:Dbt=%s info=%d\n"};
inline constexpr LogSite kDbBindName{kModPmdb, "writeCachedDRToDisk", 273,
                                     "sql:ERROR:Dbt=%s info=%d\n"};
inline constexpr LogSite kDbBindReserved{kModPmdb, "writeCachedDRToDisk", 278,
                                         "sql:ERROR:Dbt=%s info=%d\n"};
inline constexpr LogSite kDbBindBlob{kModPmdb, "writeCachedDRToDisk", 282,
                                     "sql:ERROR:Dbt=%s info=%d\n"};
inline constexpr LogSite kDbBindRowid{kModPmdb, "writeCachedDRToDisk", 287,
                                      "sql:ERROR:Dbt=%s info=%d\n"};
inline constexpr LogSite kDbFlushStep{kModPmdb, "writeCachedDRToDisk", 291,
                                      "sql:ERROR:Dbt=%s info=%d\n"};
inline constexpr LogSite kDbFlushReset{kModPmdb, "writeCachedDRToDisk", 294,
                                       "sql:ERROR:Dbt=%s info=%d\n"};
inline constexpr LogSite kDbFlushCommit{kModPmdb, "writeCachedDRToDisk", 305,
                                        "sql:ERROR:Dbt=%s info=%s\n"};
inline constexpr LogSite kDbFlushCommitRollback{kModPmdb, "writeCachedDRToDisk", 308,
                                                "sql:ERROR:Dbt=%s info=%s\n"};

// Performance helper: binding the client library.
inline constexpr LogSite kPerfLibMissing{kModHelper, "getPerfhandle", 269,
                                         "Unable to open perf lib: %s"};
inline constexpr LogSite kPerfAcquireMissing{kModHelper, "getPerfhandle", 275,
                                             "Unable to get perf_lock_acq handle"};
inline constexpr LogSite kPerfReleaseMissing{kModHelper, "getPerfhandle", 280,
                                             "Unable to get perf_lock_rel handle"};
inline constexpr LogSite kPerfHintMissing{kModHelper, "getPerfhandle", 285,
                                          "Unable to get perflock_hint handle"};

// Performance helper: display and connection probes.
inline constexpr LogSite kDisplayOpenFailed{kModHelper, "isDisplayConnected", 116,
                                            "Failed to open Display file %s"};
inline constexpr LogSite kDisplayEmpty{kModHelper, "isDisplayConnected", 129,
                                       "Unexpected Null in str"};
inline constexpr LogSite kNoDisplayHal{kModHelper, "getMaxPanelFps", 159,
                                       "Failed to get display HAL"};
inline constexpr LogSite kFpsOpenFailed{kModHelper, "getNodeData", 184,
                                        "Failed to open fps file %s"};
inline constexpr LogSite kUsbOpenFailed{kModHelper, "getUSBstate", 226,
                                        "Failed to open USB file %s"};
inline constexpr LogSite kUsbEmpty{kModHelper, "getUSBstate", 239, "Unexpected Null in str"};
inline constexpr LogSite kUsbReadFailed{kModHelper, "getUSBstate", 258,
                                        "Failed to read from USB file %s"};

// Classifier.
inline constexpr LogSite kClassifierLibMissing{kModClassifier, "Create", 32,
                                               "Unable to open perf lib: %s"};
inline constexpr LogSite kClassifierEntryMissing{kModClassifier, "Create", 39,
                                                 "Unable to get perf_get_feedback: %s"};

// Every site above, for the golden list that pins their texts.
inline constexpr const LogSite* kPlatformAll[] = {
        &kDbOpenFailed,
        &kDbJournalMode,
        &kDbCreateTable,
        &kDbCloseFailed,
        &kDbRowsLeft,
        &kDbReadPrepare,
        &kDbReadReset,
        &kDbReadFinalize,
        &kDbCountPrepare,
        &kDbCountFinalize,
        &kDbDeletePrepare,
        &kDbDeleteStep,
        &kDbDeleteFinalize,
        &kDbFlushPrepare,
        &kDbFlushBegin,
        &kDbFlushBeginRollback,
        &kDbBindInt,
        &kDbBindName,
        &kDbBindReserved,
        &kDbBindBlob,
        &kDbBindRowid,
        &kDbFlushStep,
        &kDbFlushReset,
        &kDbFlushCommit,
        &kDbFlushCommitRollback,
        &kPerfLibMissing,
        &kPerfAcquireMissing,
        &kPerfReleaseMissing,
        &kPerfHintMissing,
        &kDisplayOpenFailed,
        &kDisplayEmpty,
        &kNoDisplayHal,
        &kFpsOpenFailed,
        &kUsbOpenFailed,
        &kUsbEmpty,
        &kUsbReadFailed,
        &kClassifierLibMissing,
        &kClassifierEntryMissing,
};

}  // namespace pwr::site
