// The adapter name file: whatever it holds, a value that is found lies inside the text, within its length, and is not
// cut off by a comment; one written in front of it is found as it is.

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "inventory/adapter_file.h"

namespace {

void Check(bool condition) {
  if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 4096) return 0;
  const std::string text(reinterpret_cast<const char*>(data), size);
  for (const char* key : {"Vendor", "10D3", "10D31234", ""}) {
    std::string_view value;
    if (!FindAdapterFileValue(text, "8086", key, value)) continue;
    Check(value.data() >= text.data() && value.data() + value.size() <= text.data() + text.size());
    Check(!value.empty() && value.size() < 260);
    Check(value.find_first_of(";\n") == std::string_view::npos);
  }
  std::string_view value;
  const std::string known = "[8086]\nVendor=Known name\n" + text;
  Check(FindAdapterFileValue(known, "8086", "Vendor", value) && value == "Known name");
  return 0;
}
