#include "platform/PowerOptClassifier.h"

#include "platform/PlatformLogSites.h"
#include "platform/PowerHelper.h"

namespace site = pwr::site;

std::unique_ptr<PowerOptClassifier> PowerOptClassifier::Create() {
    // The classifier's own handle: the PowerHelper opens the same library separately.
    pwr::LibraryHandle library = pwr::openLibrary(kPerfClientLibrary);
    if (library == nullptr) {
        PWR_LOG_AT(site::kClassifierLibMissing, dlerror());
        return nullptr;
    }
    auto entry = pwr::findEntry<PerfGetFeedbackFn>(library, "perf_get_feedback");
    if (entry == nullptr) {
        PWR_LOG_AT(site::kClassifierEntryMissing, dlerror());
        return nullptr;
    }
    // new rather than make_unique: the handle leaves `library` only once the allocation for its
    // new owner has succeeded.
    return std::unique_ptr<PowerOptClassifier>(new PowerOptClassifier(library.release(), entry));
}

PowerOptClassifier::PowerOptClassifier(void* handle, PerfGetFeedbackFn getFeedback)
    : handle(handle), getFeedback(getFeedback) {}

PowerOptClassifier::~PowerOptClassifier() {
    // The library goes before `instance`, which the members' own destruction would reverse.
    handle.reset();
    instance.reset();
}

int PowerOptClassifier::getAppType(std::string app) {
    return getFeedback(kAppTypeRequest, app.c_str());
}

bool PowerOptClassifier::validateAppType(std::string app, int type) {
    return getAppType(std::move(app)) == type;
}
