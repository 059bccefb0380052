// The layout of kvcam's --json output. The values are nlohmann::ordered_json
// (members keep the order they were added in); this routine only chooses
// where the lines break, and leaves escaping and number text to the library:
//   - a top-level object prints one member a line, indented by 2;
//   - an array of objects prints one object a line, indented by 4;
//   - everything else (objects inside arrays, arrays of strings or numbers,
//     empty arrays) prints on one line, with ", " and ": " between items.
// Strings that are not valid UTF-8 (a name read from a damaged file, say)
// have their bad bytes replaced by U+FFFD rather than failing the output.
#pragma once
#include <string>

#include <nlohmann/json.hpp>

namespace kvcam {

using Json = nlohmann::ordered_json;

// The value as kvcam prints it, without a final newline.
std::string JsonText(const Json& value);

}  // namespace kvcam
