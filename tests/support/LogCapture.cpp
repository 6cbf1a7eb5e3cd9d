#include "tests/support/LogCapture.h"

#include <android/log.h>

#include <functional>
#include <mutex>
#include <utility>

namespace pwr::test {
namespace {

struct Sink {
    std::mutex mutex;
    std::vector<LogLine> lines;                    // guarded by mutex
    std::function<void(const LogLine&)> observer;  // guarded by mutex
};

Sink& sink() {
    static Sink s;
    return s;
}

void captureLogger(const __android_logger_data* data, const char* message) {
    Sink& s = sink();
    LogLine line{data->priority, data->tag != nullptr ? data->tag : "",
                 message != nullptr ? message : ""};
    std::function<void(const LogLine&)> observer;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        observer = s.observer;
    }
    // Outside the lock: the observer may look at anything, the captured lines included.
    if (observer) observer(line);
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        s.lines.push_back(std::move(line));
    }
}

void nullLogger(const __android_logger_data*, const char*) {}

}  // namespace

LogCapture::LogCapture() {
    clear();
    setObserver(nullptr);
    __android_log_set_logger(captureLogger);
}

LogCapture::~LogCapture() {
    __android_log_set_logger(nullLogger);
    setObserver(nullptr);
}

void LogCapture::setObserver(std::function<void(const LogLine&)> observer) {
    std::lock_guard<std::mutex> lock(sink().mutex);
    sink().observer = std::move(observer);
}

std::vector<LogLine> LogCapture::lines() const {
    std::lock_guard<std::mutex> lock(sink().mutex);
    return sink().lines;
}

std::vector<std::string> LogCapture::messages() const {
    std::vector<std::string> out;
    for (const LogLine& line : lines()) out.push_back(line.message);
    return out;
}

int LogCapture::count(const std::string& message) const {
    int n = 0;
    for (const LogLine& line : lines()) n += line.message == message ? 1 : 0;
    return n;
}

int LogCapture::countContaining(const std::string& part) const {
    int n = 0;
    for (const LogLine& line : lines()) n += line.message.find(part) != std::string::npos ? 1 : 0;
    return n;
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> lock(sink().mutex);
    sink().lines.clear();
}

void installNullLogger() {
    __android_log_set_logger(nullLogger);
}

}  // namespace pwr::test
