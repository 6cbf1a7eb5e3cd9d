#pragma once

#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "host/sim/Recording.h"

namespace pwr::sim {

// A whole recording as JSON, and back: how `pwr-sim compare` collects the runs it starts as
// child processes, and a form scripts can read. Counter values that are not numbers (a sampled
// series that stopped) are null.
class RecordingJson {
  public:
    static nlohmann::json toJson(const Recording& recording);
    // False with `error` naming `name` and what is wrong; nothing throws.
    static bool parseText(std::string_view text, const std::string& name, Recording* out,
                          std::string* error);
};

}  // namespace pwr::sim
