#include "platform/PowerOptClassifier.h"

#include <dlfcn.h>

#include "platform/Log.h"
#include "platform/PowerHelper.h"

using pwr::kModClassifier;

std::unique_ptr<PowerOptClassifier> PowerOptClassifier::Create() {
    // The classifier's own handle: the PowerHelper opens the same library separately.
    void* handle = dlopen(kPerfClientLibrary, RTLD_NOW);
    if (handle == nullptr) {
        PWR_LOG(kModClassifier, "Create", 32, "Unable to open perf lib: %s", dlerror());
        return nullptr;
    }
    auto entry = reinterpret_cast<PerfGetFeedbackFn>(dlsym(handle, "perf_get_feedback"));
    if (entry == nullptr) {
        PWR_LOG(kModClassifier, "Create", 39, "Unable to get perf_get_feedback: %s", dlerror());
        dlclose(handle);
        return nullptr;
    }
    return std::make_unique<PowerOptClassifier>(handle, entry);
}

PowerOptClassifier::PowerOptClassifier(void* handle, PerfGetFeedbackFn getFeedback)
    : handle(handle), getFeedback(getFeedback) {}

PowerOptClassifier::~PowerOptClassifier() {
    if (handle != nullptr) dlclose(handle);
    instance.reset();
}

int PowerOptClassifier::getAppType(std::string app) {
    return getFeedback(kAppTypeRequest, app.c_str());
}

bool PowerOptClassifier::validateAppType(std::string app, int type) {
    return getAppType(std::move(app)) == type;
}
