// The layout of kvcam's --json output (json.h).
#include "json.h"

#include <algorithm>

namespace kvcam {
namespace {

std::string Scalar(const Json& value)
{
    return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

// `{"a": 1, "b": [2, 3]}`
std::string OneLine(const Json& value)
{
    if (value.is_object()) {
        std::string out = "{";
        for (auto it = value.begin(); it != value.end(); ++it) {
            out += (it == value.begin() ? "" : ", ") + Scalar(it.key()) + ": " + OneLine(it.value());
        }
        return out + "}";
    }
    if (value.is_array()) {
        std::string out = "[";
        for (auto it = value.begin(); it != value.end(); ++it) {
            out += (it == value.begin() ? "" : ", ") + OneLine(*it);
        }
        return out + "]";
    }
    return Scalar(value);
}

// A top-level member's value: an array of objects one object a line.
std::string MemberValue(const Json& value)
{
    bool objectsInside = value.is_array() && std::any_of(value.begin(), value.end(),
                                                         [](const Json& item) { return item.is_object(); });
    if (!objectsInside) {
        return OneLine(value);
    }
    std::string out = "[";
    for (auto it = value.begin(); it != value.end(); ++it) {
        out += (it == value.begin() ? "\n    " : ",\n    ") + OneLine(*it);
    }
    return out + "\n  ]";
}

}  // namespace

std::string JsonText(const Json& value)
{
    if (!value.is_object() || value.empty()) {
        return OneLine(value);
    }
    std::string out = "{";
    for (auto it = value.begin(); it != value.end(); ++it) {
        out += (it == value.begin() ? "\n  " : ",\n  ") + Scalar(it.key()) + ": " + MemberValue(it.value());
    }
    return out + "\n}";
}

}  // namespace kvcam
