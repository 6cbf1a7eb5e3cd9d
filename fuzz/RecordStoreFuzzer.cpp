// The record store's keys and rows against a real in-memory SQLite database. Any text may reach
// the store as a key (property names come from the configuration); the where clause inlines it
// unescaped, so a quote may break, widen or limit a statement: for such keys only "no crash"
// holds. For every other key: a read returns as many rows as a count of the same key
// finds (up to the 10,000-row limit), and only rows that match the key; a delete leaves no row
// for its key. A closed store answers every query with its neutral result.
//
// Input, one operation a line, fields separated by '|':
//   w|appName|rsvdName|intcol1|blob|rowid  queue a row (missing fields: empty, unset, 0, 0)
//   u                                      queue the rows of the last read again, changed (updates)
//   f                                      flush the queued rows in one transaction
//   r|appName|rsvdName|intcol1             read the rows of a key
//   c|appName|rsvdName|intcol1             count them
//   d|appName|rsvdName|intcol1             delete them
//   x                                      close the store

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <android-base/strings.h>

#include "fuzz/FuzzSupport.h"
#include "pmdb/PMDatabase.h"
#include "pmdb/PSMReferenceOutput.h"

namespace {

constexpr size_t kMaxOperations = 256;
constexpr int kReadLimit = 10000;

using Store = PMDatabase<PSMReferenceOutput>;
using Rows = std::vector<std::unique_ptr<PSMReferenceOutput>>;

std::string field(const std::vector<std::string>& fields, size_t i) {
    return i < fields.size() ? fields[i] : std::string();
}

int32_t intField(const std::vector<std::string>& fields, size_t i) {
    const std::string text = field(fields, i);
    if (text.empty()) return kPmdbIntUnset;
    return static_cast<int32_t>(strtol(text.c_str(), nullptr, 0));
}

PMDBDataRowKey keyOf(const std::vector<std::string>& fields) {
    PMDBDataRowKey key;
    key.appName = field(fields, 1);
    key.rsvdName = field(fields, 2);
    key.intcol1 = intField(fields, 3);
    return key;
}

bool quoted(const PMDBDataRowKey& key) {
    return key.appName.find('\'') != std::string::npos ||
           key.rsvdName.find('\'') != std::string::npos;
}

bool matches(const PSMReferenceOutput& row, const PMDBDataRowKey& key) {
    return (key.appName.empty() || row.appName == key.appName) &&
           (key.rsvdName.empty() || row.rsvdName == key.rsvdName) &&
           (key.intcol1 == kPmdbIntUnset || row.intcol1 == key.intcol1);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    pwr::fuzz::quietLogs();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // An empty file name selects ":memory:": a fresh database for every input.
    auto store = std::make_unique<Store>("PSMPOWEROPT", "", "");
    pwr::fuzz::check(store->openPMdb() == kPmdbSuccess, "open an in-memory database");
    pwr::fuzz::check(store->createPMdbTables() == kPmdbSuccess, "create the table");
    bool open = true;
    Rows lastRead;
    const std::vector<std::string> lines =
            android::base::Split(std::string(reinterpret_cast<const char*>(data), size), "\n");
    for (size_t n = 0; n < lines.size() && n < kMaxOperations; ++n) {
        const std::vector<std::string> fields = android::base::Split(lines[n], "|");
        if (fields[0].empty()) continue;
        switch (fields[0][0]) {
            case 'w': {
                auto row = std::make_unique<PSMReferenceOutput>();
                row->appName = field(fields, 1);
                row->rsvdName = field(fields, 2);
                row->intcol1 = intField(fields, 3);
                row->blob = field(fields, 4).empty() ? 0 : field(fields, 4)[0];
                row->rowid = strtoll(field(fields, 5).c_str(), nullptr, 0);
                store->enqueueDR(std::move(row));
                break;
            }
            case 'u':
                for (auto& row : lastRead) {
                    row->blob = static_cast<char>(row->blob + 1);
                    store->enqueueDR(std::move(row));
                }
                lastRead.clear();
                break;
            case 'f':
                store->writeCachedDRToDisk();
                break;
            case 'r': {
                const PMDBDataRowKey key = keyOf(fields);
                lastRead = store->readAllocateDR(key);
                const int count = store->getCountDR(key);
                if (!quoted(key)) {
                    pwr::fuzz::check(
                            static_cast<int>(lastRead.size()) == std::min(count, kReadLimit),
                            "a read returns the rows a count finds");
                    for (const auto& row : lastRead) {
                        pwr::fuzz::check(matches(*row, key), "a read returns matching rows only");
                    }
                }
                if (!open) pwr::fuzz::check(lastRead.empty(), "a closed store reads nothing");
                break;
            }
            case 'c': {
                const int count = store->getCountDR(keyOf(fields));
                pwr::fuzz::check(count >= 0, "a count is never negative");
                if (!open) pwr::fuzz::check(count == 0, "a closed store counts nothing");
                break;
            }
            case 'd': {
                const PMDBDataRowKey key = keyOf(fields);
                store->deleteAllDR(key);
                if (!quoted(key)) {
                    pwr::fuzz::check(store->getCountDR(key) == 0,
                                     "a delete leaves no row of its key");
                }
                break;
            }
            case 'x':
                store->closePMdb();
                open = false;
                break;
            default:
                break;
        }
    }
    store.reset();  // flushes what is queued, then closes
    return 0;
}
