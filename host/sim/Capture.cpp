#include "host/sim/Capture.h"

#include <errno.h>

#include <cstring>
#include <limits>

#include <android-base/file.h>
#include <android-base/parseint.h>
#include <android-base/strings.h>

#include "host/tools/InputFile.h"

namespace pwr::sim {
namespace {

constexpr char kMagic[] = "pwr-capture";
constexpr int kVersion = 1;

// Raised with the line's message; caught once at the top.
struct Invalid {
    std::string message;
};

[[noreturn]] void fail(const std::string& message) {
    throw Invalid{message};
}

std::vector<std::string> words(const std::string& text) {
    std::vector<std::string> out;
    for (const std::string& w : android::base::Split(text, " \t")) {
        if (!w.empty()) out.push_back(w);
    }
    return out;
}

uint64_t unsignedNumber(const std::string& key, const std::string& word) {
    uint64_t value = 0;
    if (word.empty() || word[0] == '-' || word[0] == '+' ||
        !android::base::ParseUint(word, &value)) {
        fail(key + ": \"" + word + "\" is not a whole number");
    }
    return value;
}

std::vector<uint64_t> unsignedNumbers(const std::string& key, const std::string& text) {
    std::vector<uint64_t> out;
    for (const std::string& w : words(text)) out.push_back(unsignedNumber(key, w));
    return out;
}

int pidNumber(const std::string& key, const std::string& word) {
    int pid = 0;
    if (!android::base::ParseInt(word, &pid, 1)) fail(key + ": \"" + word + "\" is not a pid");
    return pid;
}

// "<seconds>[.<fraction>]" as milliseconds (the fraction cut to three digits).
int64_t uptimeMs(const std::string& key, const std::string& word) {
    const size_t dot = word.find('.');
    const std::string whole = word.substr(0, dot);
    std::string fraction = dot == std::string::npos ? "" : word.substr(dot + 1);
    uint64_t seconds = 0;
    const bool digits = fraction.find_first_not_of("0123456789") == std::string::npos;
    if (whole.empty() || !digits || whole.find_first_not_of("0123456789") != std::string::npos ||
        !android::base::ParseUint(whole, &seconds, uint64_t{1} << 40)) {
        fail(key + ": \"" + word + "\" is not a time in seconds");
    }
    fraction = (fraction + "000").substr(0, 3);
    return static_cast<int64_t>(seconds) * 1000 + std::stoi(fraction);
}

class Reader {
  public:
    explicit Reader(Capture* out) : mOut(out) {}

    // One line (without its line end) numbered `line`.
    void line(int line, std::string text) {
        if (!text.empty() && text.back() == '\r') text.pop_back();  // a pty's CR LF
        if (text.empty() || text[0] == '#') return;
        const size_t space = text.find(' ');
        const std::string key = text.substr(0, space);
        const std::string rest = space == std::string::npos ? "" : text.substr(space + 1);
        if (!mStarted) {
            const std::vector<std::string> w = words(text);
            if (w.size() != 2 || w[0] != kMagic) {
                fail(std::string("not a capture: the first line must be \"") + kMagic + " " +
                     std::to_string(kVersion) + "\" (written by pwr-capture.sh)");
            }
            if (w[1] != std::to_string(kVersion)) {
                fail("capture format " + w[1] + " is not known; this tool reads format " +
                     std::to_string(kVersion));
            }
            mStarted = true;
            return;
        }
        if (mOut->ended) fail("\"" + key + "\" after the \"end\" line");
        if (key == kMagic) fail("a second capture starts here: captures were joined");
        if (key == "sample") {
            CaptureSample sample;
            sample.line = line;
            sample.timeMs = uptimeMs(key, rest);
            mOut->samples.push_back(std::move(sample));
        } else if (key == "end") {
            const std::vector<std::string> w = words(rest);
            if (w.empty()) fail("end: no time");
            uptimeMs(key, w[0]);
            mOut->ended = true;
        } else if (mOut->samples.empty()) {
            header(line, key, rest);
        } else {
            sampleLine(line, key, rest, &mOut->samples.back());
        }
    }

    bool started() const { return mStarted; }

  private:
    void header(int line, const std::string& key, const std::string& rest) {
        if (key == "period") {
            mOut->periodMs = uptimeMs(key, rest);
            if (mOut->periodMs <= 0) fail("period: must be more than 0 s");
        } else if (key == "activity_every") {
            if (!android::base::ParseInt(rest, &mOut->activityEvery, 0)) {
                fail("activity_every: \"" + rest + "\" is not a number of samples");
            }
        } else if (key == "model") {
            mOut->model = rest;
        } else if (key == "prop") {
            const size_t space = rest.find(' ');
            Capture::Property property{rest.substr(0, space),
                                       space == std::string::npos ? "" : rest.substr(space + 1),
                                       line};
            if (property.name.empty()) fail("prop: no property name");
            mOut->properties.push_back(std::move(property));
        } else if (key == "gpu_available_frequencies") {
            mOut->frequenciesHz = unsignedNumbers(key, rest);
            mOut->frequenciesLine = line;
        } else if (key == "missing" && rest == "gpu_available_frequencies") {
            mOut->frequenciesLine = line;
        } else {
            fail("\"" + key + "\" is not a line of a capture's header (before its first sample)");
        }
    }

    void sampleLine(int line, const std::string& key, const std::string& rest,
                    CaptureSample* sample) {
        if (key == "cmdline" || (key == "missing" && rest.rfind("cmdline ", 0) == 0)) {
            const std::string args = key == "missing" ? rest.substr(8) : rest;
            const size_t space = args.find(' ');
            const int pid = pidNumber("cmdline", args.substr(0, space));
            std::optional<std::string> name;
            if (key == "cmdline") name = space == std::string::npos ? "" : args.substr(space + 1);
            if (!sample->cmdlines.emplace(pid, name).second) {
                fail("cmdline: pid " + std::to_string(pid) + " is listed twice in this sample");
            }
            return;
        }
        const std::string node = key == "missing" ? rest : key;
        bool known = node == "activity";
        for (const char* k : kCaptureNodeKeys) known = known || node == k;
        if (!known) {
            fail(key == "missing" ? "missing: \"" + rest + "\" is not a node a sample reads"
                                  : "\"" + key + "\" is not a line of a capture");
        }
        auto [it, added] = sample->lines.emplace(node, line);
        if (!added) {
            fail(node + ": a second line for it in the sample of line " +
                 std::to_string(sample->line) + " (the first is on line " +
                 std::to_string(it->second) + ")");
        }
        if (key == "missing") {
            sample->missing.insert(node);
        } else if (key == "gpuclk") {
            const std::vector<uint64_t> v = unsignedNumbers(key, rest);
            if (v.empty()) fail("gpuclk: no frequency");
            sample->gpuclkHz = v[0];
        } else if (key == "gpubusy") {
            const std::vector<uint64_t> v = unsignedNumbers(key, rest);
            if (v.size() != 2) fail("gpubusy: expected two numbers (busy and total time)");
            sample->gpubusy = std::make_pair(v[0], v[1]);
        } else if (key == "gpu_clock_stats") {
            sample->clockStats = unsignedNumbers(key, rest);
        } else if (key == "current_now") {
            int64_t ua = 0;
            if (!android::base::ParseInt(rest, &ua)) {
                fail("current_now: \"" + rest + "\" is not a whole number of microamperes");
            }
            sample->currentUa = ua;
        } else if (key == "top") {
            std::vector<int> pids;
            for (const std::string& w : words(rest)) pids.push_back(pidNumber(key, w));
            sample->top = std::move(pids);
        } else {
            sample->activity = rest;
        }
    }

    Capture* mOut;
    bool mStarted = false;
};

bool complete(const CaptureSample& sample) {
    for (const char* key : kCaptureNodeKeys) {
        if (sample.lines.count(key) == 0) return false;
    }
    return true;
}

}  // namespace

bool Capture::parseText(std::string_view text, const std::string& name, Capture* out,
                        std::string* error) {
    *out = Capture{};
    out->file = name;
    if (!tools::checkNoNul(text, name, error)) return false;
    std::vector<std::string> lines = android::base::Split(std::string(text), "\n");
    // A text ending with a line end splits into a last empty piece; anything else there is a
    // line cut off in the middle.
    const bool cut = !lines.back().empty();
    const int cutLine = static_cast<int>(lines.size());
    lines.pop_back();
    Reader reader(out);
    int number = 0;
    try {
        for (const std::string& l : lines) reader.line(++number, l);
    } catch (const Invalid& invalid) {
        *error = name + ":" + std::to_string(number) + ": " + invalid.message;
        return false;
    }
    if (!reader.started()) {
        *error = name + ": not a capture: it is empty" + (cut ? " but for a cut-off line" : "");
        return false;
    }
    const std::string where = name + ":" + std::to_string(cut ? cutLine : number) + ": ";
    if (cut) {
        out->warnings.push_back(where +
                                "the last line is cut off (no line end): the capture was "
                                "truncated");
    }
    if (!out->ended) {
        if (!out->samples.empty() && (cut || !complete(out->samples.back()))) {
            out->warnings.push_back(name + ":" + std::to_string(out->samples.back().line) +
                                    ": the capture ends inside this sample: it is left out");
            out->samples.pop_back();
        }
        out->warnings.push_back(where +
                                "no \"end\" line: the capture was cut off (the phone, adb or "
                                "the script stopped); imported up to its last whole sample");
    }
    return true;
}

bool Capture::parseFile(const std::string& path, Capture* out, std::string* error) {
    std::string content;
    if (!tools::readInputFile(path, &content, error)) return false;
    return parseText(content, path, out, error);
}

}  // namespace pwr::sim
