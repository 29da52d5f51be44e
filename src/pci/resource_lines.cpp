#include "pci/resource_lines.h"

#include <algorithm>

#include "platform/text_cursor.h"

namespace {

constexpr size_t kMaxName = 255;

bool IsDigit(char letter) {
  return letter >= '0' && letter <= '9';
}

bool IsNumber(std::string_view word) {
  return !word.empty() && std::all_of(word.begin(), word.end(), IsDigit);
}

// A hexadecimal number with or without the prefix "0x".
bool SkipPrefixAndRead(TextCursor& cursor, uint32_t& value) {
  if (cursor.Rest().starts_with("0x") || cursor.Rest().starts_with("0X")) cursor = TextCursor(cursor.Rest().substr(2));
  return cursor.Number(value, 16);
}

}  // namespace

bool ParsePciDevicesLine(std::string_view line, PciDevicesLine& out) {
  TextCursor cursor(line);
  uint32_t address = 0;
  if (!cursor.Field(address, 16)) return false;
  PciDevicesLine found;
  found.bus = static_cast<uint8_t>(address >> 8);
  found.device = static_cast<uint8_t>((address >> 3) & 0x1F);
  found.function = static_cast<uint8_t>(address & 0x07);
  uint32_t ids = 0;
  bool more = cursor.Field(ids, 16) && cursor.Field(found.irq, 16);
  for (size_t index = 0; more && index < found.addresses.size(); ++index) {
    more = cursor.Field(found.addresses[index], 16);
  }
  found.vendorId = static_cast<uint16_t>(ids >> 16);
  found.deviceId = static_cast<uint16_t>(ids);
  out = found;
  return true;
}

bool ParseInterruptLine(std::string_view line, InterruptLine& out) {
  TextCursor cursor(line);
  InterruptLine found;
  if (!cursor.Field(found.irq, 10) || !cursor.Skip(':')) return false;
  // One counter per processor; how many there are, only the first line of the file would tell.
  do {
    found.controller = cursor.Word();
  } while (IsNumber(found.controller));
  found.controller = found.controller.substr(0, kMaxName);
  found.device = TextCursor::Trim(cursor.Rest());
  out = found;
  return true;
}

bool ParseDmaLine(std::string_view line, DmaLine& out) {
  TextCursor cursor(line);
  DmaLine found;
  if (!cursor.Field(found.channel, 10) || !cursor.Skip(':')) return false;
  cursor.SkipBlanks();
  found.name = cursor.Rest().substr(0, std::min(cursor.Rest().find_first_of("\f\n\r\v"), kMaxName));
  if (found.name.empty()) return false;
  out = found;
  return true;
}

bool ParseRangeLine(std::string_view line, RangeLine& out) {
  TextCursor cursor(line);
  RangeLine found;
  if (!cursor.Number(found.first, 16) || !cursor.Skip('-') || !cursor.Number(found.last, 16)) return false;
  cursor.SkipBlanks();
  if (!cursor.Skip(':') || found.last < found.first) return false;
  found.name = TextCursor::Trim(cursor.Rest()).substr(0, kMaxName);
  if (found.name.empty()) return false;
  out = found;
  return true;
}

bool ParseVmwarePciLine(std::string_view line, VmwarePciLine& out) {
  TextCursor cursor(line);
  VmwarePciLine found;
  uint32_t pin = 0;
  cursor.Word();
  if (!cursor.Field(found.vendorId, 16) || !cursor.Skip(':') || !cursor.Number(found.deviceId, 16)) return false;
  for (int word = 0; word < 3; ++word)
    cursor.Word();
  cursor.SkipBlanks();
  if (!SkipPrefixAndRead(cursor, pin) || !cursor.Skip('/') || !cursor.Number(found.irq, 10) || !cursor.Skip('/') ||
      !SkipPrefixAndRead(cursor, found.vector)) {
    return false;
  }
  out = found;
  return true;
}

std::string_view FindEthernetName(std::string_view device) {
  constexpr std::string_view kEth = "eth";
  for (size_t at = device.find(kEth); at != std::string_view::npos; at = device.find(kEth, at + 1)) {
    size_t length = kEth.size();
    while (length < kEth.size() + 2 && at + length < device.size() && IsDigit(device[at + length]))
      ++length;
    if (length > kEth.size()) return device.substr(at, length);
  }
  return {};
}
