#include "inventory/scsi_device_list.h"

#include <algorithm>
#include <cstdio>

#include "trace/debug.h"

namespace {

constexpr size_t kMaxLine = 128;

bool ParseHostLine(const std::string& line, CScsiListDevice& device) {
  unsigned int host = 0;
  unsigned int channel = 0;
  unsigned int id = 0;
  unsigned long long lun = 0;
  if (std::sscanf(line.c_str(), "Host: scsi%u Channel: %u Id: %u Lun: %llu", &host, &channel, &id, &lun) != 4) {
    return false;
  }
  device.address =
      std::to_string(host) + ":" + std::to_string(channel) + ":" + std::to_string(id) + ":" + std::to_string(lun);
  device.host = host;
  device.scsiAddress = {CScsiAddress::kLength, static_cast<uint8_t>(host), static_cast<uint8_t>(channel),
                        static_cast<uint8_t>(id), static_cast<uint32_t>(lun)};
  return true;
}

void ParseVendorLine(const std::string& line, CScsiListDevice& device) {
  char vendor[8 + 1] = {};
  char model[16 + 1] = {};
  char revision[4 + 1] = {};
  std::sscanf(line.c_str(), "  Vendor:%*c%8c Model:%*c%16c Rev:%*c%4c", vendor, model, revision);
  device.vendor = vendor;
  device.model = model;
  device.revision = revision;
}

void ParseTypeLine(const std::string& line, CScsiListDevice& device) {
  char type[32 + 1] = {};
  std::sscanf(line.c_str(), "  Type:   %32c ANSI SCSI", type);
  device.type = type;
}

}  // namespace

bool CScsiDeviceList::NextLine(std::string& line) {
  if (m_Rest.empty()) return false;
  const std::string_view piece = m_Rest.substr(0, kMaxLine);
  const size_t length = std::min(piece.find('\n'), piece.size());
  line = piece.substr(0, length);
  m_Rest.remove_prefix(std::min(length + 1, piece.size()));
  return true;
}

bool CScsiDeviceList::Next(CScsiListDevice& device) {
  std::string line;
  while (NextLine(line)) {
    if (line.find("Host:") == std::string::npos) continue;
    CScsiListDevice found;
    if (!ParseHostLine(line, found)) {
      TRACE(2, "\nCSystemDrive::ScanScsiDevices  : Cannot get one of the entry from the file '%s' from line '%s'.",
            kPath, line.c_str());
      continue;
    }
    if (!NextLine(line)) return false;
    ParseVendorLine(line, found);
    if (!NextLine(line)) return false;
    ParseTypeLine(line, found);
    device = found;
    return true;
  }
  return false;
}
