#pragma once

// The base of the unit suites: every test starts with a fresh fake performance library, a fake
// device tree made the device root, the log captured, and the process's timers on virtual time.

#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "feature/LogSites.h"
#include "host/fakeperf/FakePerf.h"
#include "platform/PlatformLogSites.h"
#include "tests/support/DeviceTree.h"
#include "tests/support/FeaturePeer.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TestConfig.h"
#include "tests/support/ThreadTimers.h"

namespace pwr::test {

// The full line a site writes with the given message text.
inline std::string line(const LogSite& site, const std::string& message) {
    return linePrefix(site) + message;
}

// Lines for a row of a table (a function call, which keeps a row on as few lines as it needs).
template <typename... Texts>
std::vector<std::string> lines(const Texts&... texts) {
    return {std::string(texts)...};
}

// The opcode/value lists of every lock acquisition the performance library saw, in order.
inline std::vector<std::vector<int>> acquiredLists() {
    std::vector<std::vector<int>> lists;
    for (const fakeperf::Call& call : fakeperf::calls()) {
        if (call.kind == fakeperf::CallKind::LockAcquire) lists.push_back(call.list);
    }
    return lists;
}

// The performance library's calls of one kind, in order.
inline std::vector<fakeperf::Call> callsOf(fakeperf::CallKind kind) {
    std::vector<fakeperf::Call> out;
    for (const fakeperf::Call& call : fakeperf::calls()) {
        if (call.kind == kind) out.push_back(call);
    }
    return out;
}

class FeatureTest : public ::testing::Test {
  protected:
    FeatureTest() { fakeperf::reset(); }

    // The prefix of every captured line ("<module>: <function>() <line>: "), to compare with the
    // sites a path is expected to log at.
    std::vector<std::string> loggedSites() const {
        std::vector<std::string> prefixes;
        for (const std::string& message : log.messages()) {
            const size_t at = message.find(": ", message.find("() "));
            prefixes.push_back(message.substr(0, at == std::string::npos ? at : at + 2));
        }
        return prefixes;
    }

    VirtualTime clock;
    DeviceTree tree;
    LogCapture log;
};

// A feature built through the host's registry, with the state store's directory in place, and
// its peer; each build replaces both.
class BuiltFeatureTest : public FeatureTest {
  protected:
    BuiltFeatureTest() { tree.mkdirs(kStoreDirectory); }
    PSMPowerOptFeature& build(const PowerOptFeatureInfo& info, bool debug = true) {
        peer.reset();
        feature.emplace(info);
        peer.emplace(**feature);
        peer->setDebugEnabled(debug);
        return **feature;
    }

    std::optional<FeatureHandle> feature;
    std::optional<PSMPowerOptFeatureTestPeer> peer;
};

inline std::vector<std::string> prefixesOf(std::initializer_list<const LogSite*> sites) {
    std::vector<std::string> prefixes;
    for (const LogSite* site : sites) prefixes.push_back(linePrefix(*site));
    return prefixes;
}

}  // namespace pwr::test
