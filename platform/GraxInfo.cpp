// Placeholder until the GPU node readers land: an instance with empty tables, which the
// feature's GPU monitor reads as "no information" on every tick.
#include "platform/GraxInfo.h"

GraxInfo* GraxInfo::getInstance() {
    static GraxInfo instance;
    return &instance;
}

// mMaxTimeDelta bounds the averaging that lands with the readers; until then nothing reads it.
GraxInfo::GraxInfo() {
    static_cast<void>(mMaxTimeDelta);
}

int GraxInfo::InitFreqs() {
    return -5;
}
int GraxInfo::InitTimeInState() {
    return -5;
}
int GraxInfo::InitCapacity() {
    return 0;
}
int GraxInfo::GetAvgUtil() {
    return 0;
}
int GraxInfo::GetAvgCapacity(bool cached) {
    return cached ? mAvgCapacity : 0;
}
int GraxInfo::GetMaxCapacity() {
    return 0;
}
uint64_t GraxInfo::GetCurFreq() {
    return 0;
}
int64_t GraxInfo::GetAvgFreq() {
    return 0;
}
int64_t GraxInfo::ConvertCap2Freq(uint64_t) {
    return 0;
}
int GraxInfo::GetLevelByCap(int64_t) {
    return 0;
}
int GraxInfo::GetLevelByFreq(uint64_t) {
    return 0;
}
int64_t GraxInfo::GetFreqByLevel(int) {
    return 0;
}
int64_t GraxInfo::GetCapByLevel(int) {
    return 0;
}
std::string GraxInfo::DumpVector2String() {
    return "";
}
void GraxInfo::SetLimitFreqEnable(bool enable, std::string which) {
    if (which == "max") mMaxLimitEnable = enable;
    if (which == "min") mMinLimitEnable = enable;
}
void GraxInfo::SetLimitFreqPerfCode(int code, std::string which) {
    if (which == "max") mMaxLimitPerfCode = code;
    if (which == "min") mMinLimitPerfCode = code;
}
