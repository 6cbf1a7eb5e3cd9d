#include "host/sim/JsonNode.h"

#include <errno.h>

#include <cmath>
#include <cstring>
#include <fstream>
#include <limits>
#include <vector>

#include <android-base/stringprintf.h>

#include "host/tools/InputFile.h"

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
    if (at != std::string::npos) return what.substr(at + marker.size());
    const size_t bracket = what.find("] ");
    return bracket == std::string::npos ? what : what.substr(bracket + 2);
}

}  // namespace

std::string printable(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (static_cast<unsigned char>(c) < 0x20) {
            out += StringPrintf("\\u%04x", static_cast<unsigned char>(c));
        } else {
            out += c;
        }
    }
    return out;
}

void JsonNode::fail(const std::string& message) const {
    throw Invalid{printable(mPath), printable(message)};
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

namespace {

// Builds the document from the parser's events, refusing what nlohmann's own builder would take
// silently (a repeated key, where the last would win; a NUL character, which would cut a name
// short wherever it is used as a C string), and hands the elements of a streamed list over as
// each is complete.
class StrictBuilder {
  public:
    StrictBuilder(json* root, const JsonStream* stream) : mRoot(root), mStream(stream) {}

    bool null() { return put(json(nullptr)); }
    bool boolean(bool value) { return put(json(value)); }
    bool number_integer(json::number_integer_t value) { return put(json(value)); }
    bool number_unsigned(json::number_unsigned_t value) { return put(json(value)); }
    bool number_float(json::number_float_t value, const std::string&) { return put(json(value)); }
    bool binary(json::binary_t&) { return put(json(nullptr)); }
    bool string(std::string& value) {
        if (value.find('\0') != std::string::npos) {
            return invalid(path(), "holds a NUL character (\\u0000), which would cut it short");
        }
        return put(json(std::move(value)));
    }
    bool start_object(size_t) { return open(json::object()); }
    bool start_array(size_t) { return open(json::array()); }
    bool key(std::string& key) {
        Frame& frame = mFrames.back();
        frame.key = std::move(key);
        if (frame.key.find('\0') != std::string::npos) {
            return invalid(path(), "the key holds a NUL character (\\u0000)");
        }
        if (frame.value->contains(frame.key)) {
            return invalid(path(), "is given twice in one object; say it once");
        }
        return true;
    }
    bool end_object() { return close(); }
    bool end_array() { return close(); }
    bool parse_error(size_t byte, const std::string& token, const nlohmann::detail::exception& e) {
        // A number too large for a double is placed at its start, where a reader looks for it.
        const bool overflow = dynamic_cast<const nlohmann::detail::out_of_range*>(&e) != nullptr;
        mByte = overflow && byte > token.size() ? byte - token.size() + 1 : byte;
        mMessage = parseMessage(e.what());
        return false;
    }

    // The error after a failed parse: "<line>:<column>: <what>" (a position is known) or
    // "<path>: <what>".
    bool positioned() const { return mByte > 0; }
    size_t byte() const { return mByte; }
    const std::string& message() const { return mMessage; }

  private:
    struct Frame {
        json* value;
        std::string key;   // objects: the key being read
        size_t index = 0;  // lists: elements so far
        bool streamed = false;
    };

    // The key path of the value being read: "gpu.trace[2].busy".
    std::string path() const {
        std::string out;
        for (const Frame& frame : mFrames) {
            if (frame.value->is_object()) {
                out += (out.empty() ? "" : ".") + frame.key;
            } else {
                out += "[" + std::to_string(frame.index) + "]";
            }
        }
        return out;
    }

    bool invalid(const std::string& path, const std::string& message) {
        mInvalid = JsonNode::Invalid{printable(path), printable(message)};
        mMessage =
                mInvalid.path.empty() ? mInvalid.message : mInvalid.path + ": " + mInvalid.message;
        return false;
    }

    json* place(json&& value) {
        if (mFrames.empty()) {
            *mRoot = std::move(value);
            return mRoot;
        }
        Frame& frame = mFrames.back();
        if (frame.value->is_object()) return &((*frame.value)[frame.key] = std::move(value));
        frame.value->push_back(std::move(value));
        return &frame.value->back();
    }

    bool put(json&& value) {
        place(std::move(value));
        return finishElement();
    }

    bool open(json&& container) {
        const bool streamed = mStream != nullptr && mFrames.size() == 1 &&
                              mFrames[0].value->is_object() && mFrames[0].key == mStream->key &&
                              container.is_array();
        json* value = place(std::move(container));
        mFrames.push_back(Frame{value, "", 0, streamed});
        return true;
    }

    bool close() {
        mFrames.pop_back();
        return finishElement();
    }

    // After a value is complete: counts it in its list, and hands it over when the list is
    // streamed.
    bool finishElement() {
        if (mFrames.empty()) return true;
        Frame& frame = mFrames.back();
        if (!frame.value->is_array()) return true;
        if (frame.streamed) {
            try {
                mStream->element(frame.value->back(), frame.index);
            } catch (const JsonNode::Invalid& e) {
                return invalid(e.path, e.message);
            }
            frame.value->erase(frame.value->size() - 1);
        }
        ++frame.index;
        return true;
    }

    json* mRoot;
    const JsonStream* mStream;
    std::vector<Frame> mFrames;
    JsonNode::Invalid mInvalid;
    size_t mByte = 0;
    std::string mMessage;
};

// "<name>:<line>:<column>: <what>" or "<name>: <path>: <what>".
std::string describeFailure(const StrictBuilder& builder, const std::string& name,
                            const std::string& place) {
    return name + (builder.positioned() ? ":" + place : "") + ": " + builder.message();
}

}  // namespace

bool parseJsonText(std::string_view text, const std::string& name, json* out, std::string* error,
                   const JsonStream* stream) {
    StrictBuilder builder(out, stream);
    if (json::sax_parse(text.begin(), text.end(), &builder)) return true;
    *error = describeFailure(builder, name,
                             builder.positioned() ? lineAndColumn(text, builder.byte()) : "");
    return false;
}

bool parseJsonFile(const std::string& path, json* out, std::string* error,
                   const JsonStream* stream) {
    if (path == tools::kStandardInput) {
        std::string text;
        if (!tools::readInputFile(path, &text, error)) return false;
        return parseJsonText(text, path, out, error, stream);
    }
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        *error = path + ": cannot read: " + strerror(errno);
        return false;
    }
    StrictBuilder builder(out, stream);
    if (json::sax_parse(file, &builder)) return true;
    std::string place;
    if (builder.positioned()) {
        // The text up to the failure, read again only now, gives the line and column.
        std::ifstream again(path, std::ios::binary);
        std::string head(builder.byte(), '\0');
        again.read(head.data(), static_cast<std::streamsize>(head.size()));
        head.resize(static_cast<size_t>(again.gcount()));
        place = lineAndColumn(head, builder.byte());
    }
    *error = describeFailure(builder, path, place);
    return false;
}

}  // namespace pwr::sim
