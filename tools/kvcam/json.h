// A small JSON writer for kvcam's --json output: objects whose members keep
// the order they were added in, strings escaped, numbers written as JSON
// numbers (integers exactly). Top-level objects print one member per line;
// the objects inside arrays print on one line each, so that the output stays
// readable and greppable.
#pragma once
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kvcam {

// A JSON string literal: quotes, backslashes and control characters escaped;
// other bytes (UTF-8) pass through.
std::string JsonQuote(std::string_view text);

class JsonObject {
public:
    JsonObject& Add(std::string_view key, std::string_view text);  // a string
    JsonObject& Add(std::string_view key, const char* text) { return Add(key, std::string_view(text)); }
    JsonObject& Add(std::string_view key, const std::string& text) { return Add(key, std::string_view(text)); }
    JsonObject& Add(std::string_view key, int64_t number);
    JsonObject& AddUnsigned(std::string_view key, uint64_t number);
    JsonObject& AddBool(std::string_view key, bool value);
    // A string, or null when absent.
    JsonObject& AddNullable(std::string_view key, const std::optional<std::string>& text);
    // An already formatted JSON value (an array, a nested object).
    JsonObject& AddRaw(std::string_view key, std::string json);

    // {"a": 1, "b": 2}
    std::string Compact() const;
    // {
    //   "a": 1,
    //   "b": 2
    // }
    std::string Pretty() const;

private:
    std::vector<std::pair<std::string, std::string>> members_;  // key, formatted value
};

// [a, b] on one line, or (multiLine) one item a line, indented by 4.
std::string JsonArray(const std::vector<std::string>& items, bool multiLine);

}  // namespace kvcam
