#pragma once

#include <memory>
#include <string>

using PerfGetFeedbackFn = int (*)(int request, const char* app);

// Asks the performance client library, which keeps the device's application catalogue, what
// type an application is.
class PowerOptClassifier {
  public:
    // Request code of the library's application-type query.
    static constexpr int kAppTypeRequest = 0x1601;

    // Loads the library and binds "perf_get_feedback"; null (after logging why) on failure.
    static std::unique_ptr<PowerOptClassifier> Create();

    PowerOptClassifier(void* handle, PerfGetFeedbackFn getFeedback);
    virtual ~PowerOptClassifier();
    PowerOptClassifier(const PowerOptClassifier&) = delete;
    PowerOptClassifier& operator=(const PowerOptClassifier&) = delete;

    // The library's answer for `app`, unchanged (2 game, 3 browser, 5 another eligible kind).
    int getAppType(std::string app);
    bool validateAppType(std::string app, int type);

  private:
    void* handle;
    PerfGetFeedbackFn getFeedback;
    std::unique_ptr<PowerOptClassifier> instance;
};
