#include "ravctl/hardware/record.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

namespace ravctl {

namespace {

constexpr const char* kSmbiosTable = "/sys/firmware/dmi/tables/DMI";

}  // namespace

Json AddressText(const CPciAddress& address) {
  if (!address.IsValid()) return nullptr;
  char text[32];
  std::snprintf(text, sizeof text, "%04x:%02x:%02x.%x", address.segment, address.bus, address.device, address.function);
  return text;
}

std::string HexText(uint64_t value, int digits) {
  char text[24];
  std::snprintf(text, sizeof text, "%0*llx", digits, static_cast<unsigned long long>(value));
  return text;
}

Json BytesText(std::span<const unsigned char> bytes) {
  if (std::ranges::all_of(bytes, [](unsigned char byte) { return byte == 0; })) return nullptr;
  std::string text;
  for (const unsigned char byte : bytes)
    text += (text.empty() ? "" : ":") + HexText(byte, 2);
  return text;
}

Json TextOrNull(std::string_view text) {
  const size_t first = text.find_first_not_of(' ');
  if (first == std::string_view::npos) return nullptr;
  return text.substr(first, text.find_last_not_of(' ') - first + 1);
}

std::string SlotText(const Json& slot) {
  return slot == 0 ? "onboard" : slot.dump();
}

void WarnUnreadable(Output& out, std::string_view what, const std::string& path) {
  if (::access(path.c_str(), R_OK) != 0 && (errno == EACCES || errno == EPERM)) out.Warn(what, path, "run as root");
}

void WarnWithoutSlots(Output& out) {
  WarnUnreadable(out, "slot numbers are missing", kSmbiosTable);
}

}  // namespace ravctl
