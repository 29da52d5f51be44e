// JSON from outside, such as the manifest of a bundle: what is taken is within the limits and reads back as it is.

#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "ravctl/base/json_reader.h"

namespace {

constexpr size_t kMaxInput = 64 * 1024;
constexpr ravctl::JsonLimits kLimits = {.size = kMaxInput, .depth = 4, .keys = 4, .values = 64};

size_t Values(const nlohmann::ordered_json& value, size_t depth) {
  if (depth > kLimits.depth || (value.is_object() && value.size() > kLimits.keys)) std::abort();
  size_t values = 1;
  if (value.is_structured()) {
    for (const auto& below : value)
      values += Values(below, depth + (below.is_structured() ? 1 : 0));
  }
  return values;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > kMaxInput) return 0;
  std::string why;
  const auto value = ravctl::ReadJson({reinterpret_cast<const char*>(data), size}, why, kLimits);
  if (value.has_value() != why.empty()) std::abort();
  if (!value) return 0;
  if (Values(*value, value->is_structured() ? 1 : 0) > kLimits.values) std::abort();
  const std::string text = value->dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
  const auto again = ravctl::ReadJson(text, why);
  if (!again || again->dump() != text) std::abort();
  return 0;
}
