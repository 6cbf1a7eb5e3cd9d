#pragma once

#include <string>
#include <vector>

class StateStore;

// System properties that a power mode changes for as long as it is active. Before a property is
// set, the first character of its current value is saved in the state store (an unset property
// reads as "0"); releasing sets each property back to that one character. The properties handled
// are single-character switches, so one saved character is the whole value.
//
// No state and no lock of its own: the state store serialises its accesses, and the event and
// deep-timer threads that apply and release a list order those calls themselves.
class PropertyApplier {
  public:
    PropertyApplier(StateStore& store, const bool& debugEnabled)
        : mStore(store), mDebugEnabled(debugEnabled) {}

    // Appends the comma-separated tokens of `text` to `out`; `text` itself is left untouched.
    void ConvertToStringArray(const char* text, std::vector<std::string>& out) const;
    // Sets each name/value pair of the first `count` elements, saving the first character of
    // every old value before the property changes. -1 when there is no pair, else the length of
    // the last old value read.
    int applyProp(const std::string* list, int count) const;
    // applyProp over a whole list; -1 for an empty one.
    int readAndApplyProp(const std::vector<std::string>& list) const;
    // Sets every name of the list back to the one character the state store saved for it.
    void releaseProp(const std::vector<std::string>& list) const;

  private:
    StateStore& mStore;
    const bool& mDebugEnabled;
};
