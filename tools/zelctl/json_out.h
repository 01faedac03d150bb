// What --json prints: one compact document a line, for scripts.
#pragma once

#include <nlohmann/json.hpp>

#include <string>

namespace zelctl {

// Keys stay in the order a command sets them, which is the order scripts
// have always seen.
using Json = nlohmann::ordered_json;

// A text the library handed out: a string, or null where there is none.
Json json_text(const char *text);

// The compact text of `doc`: control characters as \uXXXX (\n, \r, \t and
// the two-character escapes aside), other text as it is.  Bytes that are not
// UTF-8 become U+FFFD, so that the output is always JSON.
std::string json_dump(const Json &doc);

// json_dump and a newline on standard output; returns 0.
int print_json(const Json &doc);

}  // namespace zelctl
