#pragma once

#include <memory>
#include <string>

#include "platform/LibraryHandle.h"

using PerfGetFeedbackFn = int (*)(int request, const char* app);

// Asks the performance client library, which keeps the device's application catalogue, what
// type an application is.
class PowerOptClassifier {
  public:
    // Request code of the library's application-type query.
    static constexpr int kAppTypeRequest = 0x1601;

    // Loads the library and binds "perf_get_feedback"; null (after logging why) on failure.
    static std::unique_ptr<PowerOptClassifier> Create();

    // Takes over `handle`, a dlopen handle of the library, which the destructor closes.
    PowerOptClassifier(void* handle, PerfGetFeedbackFn getFeedback);
    // Closes the library, then destroys `instance`.
    virtual ~PowerOptClassifier();
    PowerOptClassifier(const PowerOptClassifier&) = delete;
    PowerOptClassifier& operator=(const PowerOptClassifier&) = delete;

    // The library's answer for `app`, unchanged (2 game, 3 browser, 5 another eligible kind).
    int getAppType(std::string app);
    bool validateAppType(std::string app, int type);

  private:
    pwr::LibraryHandle handle;
    PerfGetFeedbackFn getFeedback;
    std::unique_ptr<PowerOptClassifier> instance;
};
