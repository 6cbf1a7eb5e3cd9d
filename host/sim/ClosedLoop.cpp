#include "host/sim/ClosedLoop.h"

#include <algorithm>
#include <optional>

namespace pwr::sim {
namespace {

constexpr double kMsPerHour = 3600.0 * 1000.0;

std::optional<int> find(const std::map<std::string, int>& limits, const char* clock) {
    auto it = limits.find(clock);
    return it == limits.end() ? std::nullopt : std::optional<int>(it->second);
}

}  // namespace

ClosedLoop::ClosedLoop(const DeviceModel& model, const std::vector<GpuPoint>& demand)
    : mModel(model),
      mDemand(demand),
      mGovernor(model.gpuFrequenciesMhz(), model.targetBusy),
      mPower(model),
      mClockMhz(model.gpu.front().mhz) {}

double ClosedLoop::demandAt(int64_t ms) {
    while (mCursor < mDemand.size() && mDemand[mCursor].timeMs <= ms) ++mCursor;
    if (mCursor == 0) return 0;
    const GpuPoint& point = mDemand[mCursor - 1];
    return point.freqMhz * point.busyAt(ms) / 100.0;
}

void ClosedLoop::advance(int64_t nowMs, const fakeperf::Limits& limits,
                         std::map<uint64_t, double>* timeInStateUs) {
    const Governor::Range range =
            mGovernor.allowed(find(limits.minMhz, kGpuClock), find(limits.maxMhz, kGpuClock));
    const double cpuMa = mPower.cpuMa(limits);
    const int64_t period = mModel.governorPeriodMs;
    mWindowBusyUs = 0;
    mWindowUs = 0;
    // Steps end at each governor period and at `nowMs`; a change of limits starts one at once.
    while (mNowMs < nowMs) {
        const int64_t next = std::min(nowMs, (mNowMs / period + 1) * period);
        const double demand = demandAt(mNowMs);
        const uint64_t mhz = mGovernor.pick(demand, range);
        const double served = static_cast<double>(mhz);
        const double busy = std::min(1.0, demand / served);
        const double ms = static_cast<double>(next - mNowMs);
        (*timeInStateUs)[mhz] += ms * 1000.0;
        mWindowBusyUs += busy * ms * 1000.0;
        mWindowUs += ms * 1000.0;
        mTotals.chargeMah += mPower.totalMa(mhz, busy, cpuMa) * ms / kMsPerHour;
        mTotals.demandMc += demand * ms / 1000.0;
        if (demand > served) {
            mTotals.saturatedMs += next - mNowMs;
            mTotals.unservedMc += (demand - served) * ms / 1000.0;
        }
        mNowMs = next;
    }
    mDemandMhz = demandAt(nowMs);
    mClockMhz = mGovernor.pick(mDemandMhz, range);
    mCurrentMa = mPower.totalMa(mClockMhz,
                                std::min(1.0, mDemandMhz / static_cast<double>(mClockMhz)), cpuMa);
}

}  // namespace pwr::sim
