#pragma once

#include <functional>
#include <string>
#include <vector>

namespace pwr::test {

// One line as liblog handed it to the logger.
struct LogLine {
    int priority;
    std::string tag;
    std::string message;
};

// Captures everything written through liblog while alive, by installing a logger with
// __android_log_set_logger. Only one may exist at a time. Safe against timer threads.
class LogCapture {
  public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LogLine> lines() const;
    std::vector<std::string> messages() const;
    // Number of captured messages equal to `message`.
    int count(const std::string& message) const;
    // Number of captured messages that contain `part`.
    int countContaining(const std::string& part) const;
    bool contains(const std::string& message) const { return count(message) > 0; }
    void clear();
    // Calls `observer` on the logging thread with every line, before the line is captured and
    // before the logging call returns: a test can look at the world as it was at that moment.
    void setObserver(std::function<void(const LogLine&)> observer);
};

// Routes liblog to a logger that drops every line (benchmarks, quiet tools).
void installNullLogger();

}  // namespace pwr::test
