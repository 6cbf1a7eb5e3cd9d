#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace pwr::sim {

// One value of a JSON input file with its key path ("gpu.trace[2].busy"), read strictly: every
// accessor checks the type and range and fails with the path, and onlyKeys() refuses keys it was
// not told about, so that a misspelt key is an error instead of a silently ignored setting.
// Failures throw JsonNode::Invalid, which the file's reader catches once at its top.
class JsonNode {
  public:
    struct Invalid {
        std::string path;
        std::string message;
    };

    JsonNode(const nlohmann::json& value, std::string path)
        : mValue(value), mPath(std::move(path)) {}

    [[noreturn]] void fail(const std::string& message) const;

    const nlohmann::json& value() const { return mValue; }
    const std::string& path() const { return mPath; }

    // This node, after checking that it is an object (`expecting` says what it should hold).
    JsonNode object(const char* expecting) const;
    bool has(const char* key) const { return mValue.contains(key); }
    JsonNode child(const char* key) const;
    JsonNode element(size_t index) const;
    std::string join(const std::string& key) const;
    void onlyKeys(std::initializer_list<const char*> keys) const;

    std::string text() const;
    bool boolean() const;
    double number(double min, double max) const;
    int64_t integer(int64_t min, int64_t max) const;
    // Seconds from the start (at most 30 days), as milliseconds.
    int64_t seconds() const;
    const nlohmann::json& array() const;

  private:
    const nlohmann::json& mValue;
    std::string mPath;
};

// The elements of one list of the top-level object, handed over one at a time as they are read
// instead of being kept in the document, so that a long list costs no memory. The list stays
// empty in the document. `element` may throw JsonNode::Invalid to stop the parse.
struct JsonStream {
    std::string key;  // the top-level key whose list is streamed
    std::function<void(const nlohmann::json& element, size_t index)> element;
};

// `text` with its control characters written as \u00XX, so that a message quoting a key or a
// value stays one line.
std::string printable(const std::string& text);

// Parses `text` as strict JSON: a key given twice in one object and a NUL character in a text or
// a key are errors, not silently taken. False with `error` set to "<name>:<line>:<column>: <what>"
// when it is not JSON, or "<name>: <key path>: <what>" for a duplicate key, a NUL character or a
// JsonNode::Invalid from `stream`; nothing throws.
bool parseJsonText(std::string_view text, const std::string& name, nlohmann::json* out,
                   std::string* error, const JsonStream* stream = nullptr);

// The same for a file ("-": standard input), read as it is parsed rather than kept whole.
bool parseJsonFile(const std::string& path, nlohmann::json* out, std::string* error,
                   const JsonStream* stream = nullptr);

}  // namespace pwr::sim
