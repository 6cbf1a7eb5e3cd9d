#include "host/sim/ProfileColors.h"

#include <cstdint>
#include <iterator>

namespace pwr::sim {
namespace {

// Sixteen colours distinct at a glance on white. The bundled configurations' profile names land
// on different ones (DYN_GPU_0_HIGH red, DYN_GPU_1_BALANCED blue, DYN_GPU_2_SAVING green,
// PROFILE_LIGHT_MODE purple, DEFAULT brown).
constexpr const char* kProfilePalette[] = {
        "#f58231", "#42d4f4", "#4363d8", "#f032e6", "#808000", "#469990", "#000075", "#e6a800",
        "#800000", "#7f7f7f", "#bcbd22", "#e6194b", "#ff69b4", "#911eb4", "#9a6324", "#3cb44b"};
constexpr const char* kSeriesPalette[] = {"#1f77b4", "#d62728", "#2ca02c", "#ff7f0e",
                                          "#9467bd", "#8c564b", "#e377c2", "#17becf"};

}  // namespace

const char* profileColor(const std::string& name) {
    // FNV-1a: stable across builds and platforms, unlike std::hash.
    uint32_t hash = 2166136261u;
    for (unsigned char c : name) {
        hash ^= c;
        hash *= 16777619u;
    }
    return kProfilePalette[hash % std::size(kProfilePalette)];
}

const char* seriesColor(size_t index) {
    return kSeriesPalette[index % std::size(kSeriesPalette)];
}

}  // namespace pwr::sim
