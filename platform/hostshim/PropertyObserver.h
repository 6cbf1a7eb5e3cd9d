#pragma once

#include <functional>
#include <string>

namespace pwr::host {

// Called after every property_set of the host's property stand-in, on the calling thread, with
// the name, the value and property_set's result. Tools use it to show which properties a feature
// changes; an empty function stops the calls.
using PropertyObserver =
        std::function<void(const std::string& key, const std::string& value, int result)>;
void setPropertyObserver(PropertyObserver observer);

}  // namespace pwr::host
