#pragma once

#include <memory>
#include <string>

template <typename Row>
class PMDatabase;
struct PSMReferenceOutput;

// Power-saving state store: what the feature changed, kept in the record store so that it can be
// undone later, after a restart of the service too. A read consumes the key's rows, so each key
// holds at most one pending byte between a write and the next read.
//
// The store is opened while the feature is built and only read afterwards; the record store's
// cache mutex serialises the writes and reads of the event and timer threads.
class StateStore {
  public:
    explicit StateStore(const bool& debugEnabled);
    ~StateStore();
    StateStore(const StateStore&) = delete;
    StateStore& operator=(const StateStore&) = delete;

    // Creates and opens the store unless it exists; on failure the feature runs without it.
    void pmDbInit();
    // Records one byte under `key`; nothing without a store.
    void pmDbWrite(const std::string& key, char value);
    // The byte last written under `key` (0 when none, or without a store), deleting its rows.
    char pmDbRead(const std::string& key);

    PMDatabase<PSMReferenceOutput>* database() const { return mPmDatabase.get(); }
    // The last initialisation's result: 0, or -1 when the store could not be opened.
    int status() const { return mPmDbStatus; }

  private:
    const bool& mDebugEnabled;
    std::unique_ptr<PMDatabase<PSMReferenceOutput>> mPmDatabase;
    int mPmDbStatus = 0;
};
