// kvcam's JSON writer (json.h).
#include "json.h"

#include <cstdio>

namespace kvcam {

std::string JsonQuote(std::string_view text)
{
    std::string out = "\"";
    for (unsigned char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20 || c == 0x7F) {
            char escaped[8];
            std::snprintf(escaped, sizeof(escaped), "\\u%04x", c);
            out += escaped;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + "\"";
}

JsonObject& JsonObject::Add(std::string_view key, std::string_view text) { return AddRaw(key, JsonQuote(text)); }

JsonObject& JsonObject::Add(std::string_view key, int64_t number) { return AddRaw(key, std::to_string(number)); }

JsonObject& JsonObject::AddUnsigned(std::string_view key, uint64_t number)
{
    return AddRaw(key, std::to_string(number));
}

JsonObject& JsonObject::AddBool(std::string_view key, bool value) { return AddRaw(key, value ? "true" : "false"); }

JsonObject& JsonObject::AddNullable(std::string_view key, const std::optional<std::string>& text)
{
    return AddRaw(key, text ? JsonQuote(*text) : "null");
}

JsonObject& JsonObject::AddRaw(std::string_view key, std::string json)
{
    members_.emplace_back(JsonQuote(key), std::move(json));
    return *this;
}

std::string JsonObject::Compact() const
{
    std::string out = "{";
    for (size_t i = 0; i < members_.size(); ++i) {
        out += (i == 0 ? "" : ", ") + members_[i].first + ": " + members_[i].second;
    }
    return out + "}";
}

std::string JsonObject::Pretty() const
{
    std::string out = "{";
    for (size_t i = 0; i < members_.size(); ++i) {
        out += (i == 0 ? "\n  " : ",\n  ") + members_[i].first + ": " + members_[i].second;
    }
    return out + (members_.empty() ? "}" : "\n}");
}

std::string JsonArray(const std::vector<std::string>& items, bool multiLine)
{
    if (items.empty()) {
        return "[]";
    }
    std::string out = "[";
    for (size_t i = 0; i < items.size(); ++i) {
        out += i == 0 ? "" : ",";
        out += multiLine ? "\n    " : (i == 0 ? "" : " ");
        out += items[i];
    }
    return out + (multiLine ? "\n  ]" : "]");
}

}  // namespace kvcam
