#include "ravctl/hardware/pci_functions.h"

#include <fcntl.h>

#include <cstdio>
#include <string>
#include <vector>

#include "platform/descriptor_io.h"
#include "platform/directory.h"
#include "platform/text_cursor.h"
#include "platform/unique_fd.h"

namespace ravctl {

namespace {

constexpr const char* kPciDevices = "/sys/bus/pci/devices";
constexpr uint32_t kLastNarrowSegment = 0xFFFF;

bool ReadHeader(const std::string& path, CPciCommonConfigHeader& header) {
  const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  return file && ReadSome(file.Get(), reinterpret_cast<char*>(header.bytes), sizeof header.bytes) > 0 &&
         header.IsPresent();
}

}  // namespace

PciPlace PciPlace::Of(const CPciAddress& address) {
  return {address.segment, address.bus, address.device, address.function};
}

std::string PciPlace::Text() const {
  char text[32];
  std::snprintf(text, sizeof text, "%04x:%02x:%02x.%x", segment, bus, device, function);
  return text;
}

std::optional<PciPlace> ParsePciPlace(std::string_view text) {
  TextCursor cursor(text);
  uint32_t segment = 0;
  unsigned int bus = 0, device = 0, function = 0;
  if (!cursor.Number(segment, 16) || !cursor.Skip(':') || !cursor.Number(bus, 16) || !cursor.Skip(':') ||
      !cursor.Number(device, 16) || !cursor.Skip('.') || !cursor.Number(function, 16)) {
    return std::nullopt;
  }
  const PciPlace place = {segment, static_cast<uint8_t>(bus), static_cast<uint8_t>(device),
                          static_cast<uint8_t>(function)};
  return place.Text() == text ? std::optional(place) : std::nullopt;
}

PciFunctions::PciFunctions() {
  CPciConfigList list;
  CPciConfigList::ScanPciSlots(list, false);
  *this = PciFunctions(list);
}

PciFunctions::PciFunctions(const CPciConfigList& list) {
  for (const auto& [address, function] : list)
    emplace_hint(end(), PciPlace::Of(address), function.header);
  AddWideSegments();
  FindBridges();
}

void PciFunctions::AddWideSegments() {
  std::vector<std::string> names;
  CDirectory::GetDirectoryContent(names, kPciDevices, false);
  for (const std::string& name : names) {
    const std::optional<PciPlace> place = ParsePciPlace(name);
    CPciCommonConfigHeader header;
    if (!place || place->segment <= kLastNarrowSegment) continue;
    if (ReadHeader(std::string(kPciDevices) + "/" + name + "/config", header)) emplace(*place, header);
  }
}

void PciFunctions::FindBridges() {
  for (const auto& [place, header] : *this) {
    const uint8_t bus = header.SecondaryBus();
    if (header.IsBridge() && bus != 0) m_Bridges.emplace(std::pair{place.segment, bus}, place);
  }
}

const CPciCommonConfigHeader* PciFunctions::Find(const PciPlace& place) const {
  const auto found = find(place);
  return found == end() ? nullptr : &found->second;
}

bool PciFunctions::IsBridge(const PciPlace& place) const {
  const CPciCommonConfigHeader* const header = Find(place);
  return header != nullptr && header->IsBridge();
}

const PciPlace* PciFunctions::BridgeOf(const PciPlace& place) const {
  const auto found = m_Bridges.find({place.segment, place.bus});
  return found == m_Bridges.end() ? nullptr : &found->second;
}

}  // namespace ravctl
