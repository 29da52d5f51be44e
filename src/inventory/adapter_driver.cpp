#include "inventory/adapter_driver.h"

#include <fcntl.h>

#include <cstdio>

#include "platform/descriptor_io.h"
#include "platform/text_cursor.h"
#include "platform/unique_fd.h"
#include "trace/debug.h"

namespace {

constexpr const char* kDevices = "/proc/bus/pci/devices";
constexpr int kNumbersBehindKey = 16;  // vendor and device, IRQ, seven addresses, seven sizes
constexpr size_t kMaxRest = 255;

uint16_t MakeKey(unsigned bus, unsigned device, unsigned function) {
  return static_cast<uint16_t>((bus << 8) | (device << 3) | (function & 7));
}

}  // namespace

bool ParsePciDevicesKey(std::string_view line, uint16_t& key) {
  return TextCursor(line).Field(key, 16);
}

std::string_view ParsePciDevicesDriver(std::string_view line) {
  TextCursor cursor(line);
  uint64_t number = 0;
  for (int field = 0; field <= kNumbersBehindKey; ++field)
    cursor.Field(number, 16);
  TextCursor rest(cursor.Rest().substr(0, kMaxRest));
  rest.SkipBlanks();
  return rest.Rest();
}

bool PciDriverTable::Read() {
  const UniqueFd file(::open(kDevices, O_RDONLY | O_CLOEXEC));
  if (!file) return false;
  m_IsRead = true;
  ReadToEnd(file.Get(), m_Text);
  for (std::string_view rest = m_Text; !rest.empty();) {
    const std::string_view line = rest.substr(0, rest.find('\n'));
    rest.remove_prefix(std::min(line.size() + 1, rest.size()));
    uint16_t key = 0;
    if (ParsePciDevicesKey(line, key)) m_Lines.try_emplace(key, line);
  }
  return true;
}

bool PciDriverTable::Find(unsigned segment, unsigned bus, unsigned device, unsigned function, size_t maxLength,
                          std::string& driver) {
  TRACE(3, "\nGetAdapterDriverName() : for %04x:%02x:%02x.%d from %s\n", segment, bus, device,
        static_cast<int>(function), kDevices);
  if (!m_IsRead && !Read()) return false;
  const auto line = m_Lines.find(MakeKey(bus, device, function));
  if (line == m_Lines.end()) return false;
  const std::string_view found = ParsePciDevicesDriver(line->second);
  if (found.empty()) {
    TRACE(3, "\nGetAdapterDriverName() : Drivername for %04x:%02x:%02x.%d NOT found\n", segment, bus, device,
          static_cast<int>(function));
    return false;
  }
  driver = found.substr(0, maxLength);
  TRACE(3, "\nGetAdapterDriverName() : Drivername for %04x:%02x:%02x.%d found %s\n", segment, bus, device,
        static_cast<int>(function), driver.c_str());
  return true;
}

int GetAdapterDriverName(unsigned segment, unsigned bus, unsigned device, unsigned function, char* buffer, int size) {
  if (buffer == nullptr || size <= 0) return 0;
  std::string driver;
  const bool found = PciDriverTable().Find(segment, bus, device, function, static_cast<size_t>(size) - 1, driver);
  std::snprintf(buffer, static_cast<size_t>(size), "%s", driver.c_str());
  return found ? 1 : 0;
}
