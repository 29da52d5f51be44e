#pragma once

#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace ravctl {

// What JSON from outside may hold. Beyond one of these it is refused while it is read, so that time and memory stay in
// proportion to the text, whatever is in it.
struct JsonLimits {
  uint64_t size = uint64_t{64} << 20;  // of the text, in bytes
  size_t depth = 16;                   // arrays and objects in each other
  size_t keys = 128;                   // of one object
  size_t values = 2000000;             // of all: objects, arrays, texts, numbers ...
};

// The value that the text is; null with the reason when it is no JSON or beyond a limit. Of a key that stands twice in
// an object the last value counts.
std::optional<nlohmann::ordered_json> ReadJson(std::string_view text, std::string& why, const JsonLimits& limits = {});

}  // namespace ravctl
