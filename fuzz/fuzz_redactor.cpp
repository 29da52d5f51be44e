// The redactor, on every kind of content: identities that the machine is known to have are in nothing that comes out,
// and texts keep their length. The first byte of the input chooses the kind.

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "ravctl/tree/redact/redact_entries.h"

namespace {

constexpr size_t kMaxInput = 16 * 1024;

struct Kind {
  const char* path;
  bool keepsLength;
};
constexpr auto kKinds = std::to_array<Kind>({{"etc/some.ini", true},
                                             {"var/log/log.ravd", true},
                                             {"var/log/log.ravd_i.gz", false},
                                             {"etc/pelrix/registry", false},
                                             {"sys/firmware/dmi/tables/DMI", true},
                                             {"vmfs/devices/char/mem/smbios", true},
                                             {"dev/mem", true},
                                             {"proc/net/dev", true}});

// No letter or digit in front of it or behind it.
bool StandsIn(const std::string& text, const std::string& word) {
  const auto isLimit = [&text](size_t at) {
    return at >= text.size() || std::isalnum(static_cast<unsigned char>(text[at])) == 0;
  };
  for (size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + 1)) {
    if (isLimit(at - 1) && isLimit(at + word.size())) return true;
  }
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0 || size > kMaxInput) return 0;
  const Kind& kind = kKinds.at(data[0] % kKinds.size());
  ravctl::CapturedEntry entry{.path = kind.path, .content = {reinterpret_cast<const char*>(data) + 1, size - 1}};
  entry.size = entry.content.size();
  if (entry.path == "dev/mem") entry.ranges = {{0xE0000, entry.size}};
  ravctl::CapturedEntry known{.path = "etc/known.ini", .content = "a0:36:9f:12:34:56 serial=KEST4711X 10.20.30.44\n"};
  known.size = known.content.size();
  std::vector<ravctl::CapturedEntry> entries = {known, entry};
  std::vector<ravctl::Uncaptured> missing;
  ravctl::BundleOrigin origin;
  origin.host = "fileserver7";
  ravctl::RedactAll(entries, missing, origin);
  if (entries.size() + missing.size() != 2 || entries[0].content.size() != known.size) std::abort();
  if (entries.size() == 1) return 0;
  const std::string& content = entries[1].content;
  if (kind.keepsLength && content.size() != entry.size) std::abort();
  if (entry.path != "etc/some.ini") return 0;
  for (const char* word : {"a0:36:9f:12:34:56", "a0369f123456", "KEST4711X", "10.20.30.44", "fileserver7"}) {
    if (StandsIn(content, word)) std::abort();
  }
  return 0;
}
