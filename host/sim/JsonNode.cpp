#include "host/sim/JsonNode.h"

#include <cmath>
#include <limits>

#include <android-base/stringprintf.h>

namespace pwr::sim {
namespace {

using android::base::StringPrintf;
using nlohmann::json;

// Longer scenarios are not useful and would overflow nothing, but keep times far from it.
constexpr double kMaxSeconds = 30.0 * 24 * 3600;

std::string describeType(const json& value) {
    return std::string(value.type_name());
}

// "<line>:<column>" of the byte at 1-based `position` of `text`.
std::string lineAndColumn(std::string_view text, size_t position) {
    const size_t end = std::min(position > 0 ? position - 1 : 0, text.size());
    int line = 1;
    size_t lineStart = 0;
    for (size_t i = 0; i < end; ++i) {
        if (text[i] == '\n') {
            ++line;
            lineStart = i + 1;
        }
    }
    return std::to_string(line) + ":" + std::to_string(end - lineStart + 1);
}

// nlohmann's message without its "[json.exception.parse_error.101] parse error at line 1,
// column 2: " prefix, whose position is given the usual way instead.
std::string parseMessage(const std::string& what) {
    const std::string marker = ": ";
    size_t at = what.find("parse error");
    if (at != std::string::npos) at = what.find(marker, at);
    return at == std::string::npos ? what : what.substr(at + marker.size());
}

}  // namespace

void JsonNode::fail(const std::string& message) const {
    throw Invalid{mPath, message};
}

JsonNode JsonNode::object(const char* expecting) const {
    if (!mValue.is_object())
        fail(std::string("must be ") + expecting + ", not " + describeType(mValue));
    return *this;
}

JsonNode JsonNode::child(const char* key) const {
    if (!mValue.contains(key)) fail(std::string("\"") + key + "\" is missing");
    return JsonNode(mValue.at(key), join(key));
}

JsonNode JsonNode::element(size_t index) const {
    return JsonNode(mValue.at(index), mPath + "[" + std::to_string(index) + "]");
}

std::string JsonNode::join(const std::string& key) const {
    return mPath.empty() ? key : mPath + "." + key;
}

void JsonNode::onlyKeys(std::initializer_list<const char*> keys) const {
    for (const auto& [key, unused] : mValue.items()) {
        bool known = false;
        for (const char* k : keys) known = known || key == k;
        if (!known) {
            std::string list;
            for (const char* k : keys) list += (list.empty() ? "" : ", ") + std::string(k);
            JsonNode(unused, join(key)).fail("unknown key; expected one of " + list);
        }
    }
}

std::string JsonNode::text() const {
    if (!mValue.is_string()) fail("must be a text, not " + describeType(mValue));
    return mValue.get<std::string>();
}

bool JsonNode::boolean() const {
    if (!mValue.is_boolean()) fail("must be true or false, not " + describeType(mValue));
    return mValue.get<bool>();
}

double JsonNode::number(double min, double max) const {
    if (!mValue.is_number()) fail("must be a number, not " + describeType(mValue));
    const double v = mValue.get<double>();
    if (!std::isfinite(v) || v < min || v > max) {
        fail(StringPrintf("%g is outside %g to %g", v, min, max));
    }
    return v;
}

int64_t JsonNode::integer(int64_t min, int64_t max) const {
    if (!mValue.is_number_integer()) fail("must be a whole number, not " + describeType(mValue));
    const int64_t v = mValue.is_number_unsigned()
                              ? static_cast<int64_t>(std::min<uint64_t>(
                                        mValue.get<uint64_t>(),
                                        static_cast<uint64_t>(std::numeric_limits<int64_t>::max())))
                              : mValue.get<int64_t>();
    if (v < min || v > max) {
        fail(StringPrintf("%lld is outside %lld to %lld", static_cast<long long>(v),
                          static_cast<long long>(min), static_cast<long long>(max)));
    }
    return v;
}

int64_t JsonNode::seconds() const {
    return std::llround(number(0, kMaxSeconds) * 1000.0);
}

const json& JsonNode::array() const {
    if (!mValue.is_array()) fail("must be a list, not " + describeType(mValue));
    return mValue;
}

bool parseJsonText(std::string_view text, const std::string& name, json* out, std::string* error) {
    try {
        *out = json::parse(text.begin(), text.end());
    } catch (const json::parse_error& e) {
        *error = name + ":" + lineAndColumn(text, e.byte) + ": " + parseMessage(e.what());
        return false;
    } catch (const json::exception& e) {
        // A number too large for a double: the message quotes it, which gives its place.
        std::string message = e.what();
        const size_t bracket = message.find("] ");
        if (bracket != std::string::npos) message.erase(0, bracket + 2);
        std::string place;
        const size_t open = message.find('\'');
        const size_t close = open == std::string::npos ? open : message.find('\'', open + 1);
        if (close != std::string::npos) {
            const size_t at = text.find(message.substr(open + 1, close - open - 1));
            if (at != std::string_view::npos) place = ":" + lineAndColumn(text, at + 1);
        }
        *error = name + place + ": " + message;
        return false;
    }
    return true;
}

}  // namespace pwr::sim
