#include "inventory/system_adapter.h"

#include <algorithm>
#include <cstdio>

#include "inventory/adapter_file.h"
#include "trace/debug.h"

namespace {

std::string HexText(unsigned value) {
  char text[16] = {};
  std::snprintf(text, sizeof text, "%04X", value);
  return text;
}

// The name for exactly that subsystem, else the one for the device.
std::string ReadDeviceName(const CAdapterFile& file, const CPciCommonConfigHeader& header,
                           const std::string& vendorSection, const std::string& subVendorSection) {
  std::string name;
  const std::string deviceKey = HexText(header.DeviceId());
  const auto find = [&](const std::string& key) {
    return file.GetDeviceName(name, vendorSection.c_str(), subVendorSection.c_str(), key.c_str());
  };
  if (header.SubsystemId() != 0 && find(deviceKey + HexText(header.SubsystemId()))) return name;
  if (find(deviceKey)) return name;
  TRACE(
      2,
      "\nCSystemAdapter      : WARNING! No device name found for vendor ID 0x%X sub vendor ID 0x%X device ID 0x%X sub system ID 0x%X!",
      header.VendorId(), header.SubsystemVendorId(), header.DeviceId(), header.SubsystemId());
  return "";
}

}  // namespace

CSystemAdapter::~CSystemAdapter() = default;

void CSystemAdapter::ScanPciNames(const CPciSlotData& slot) {
  if (!slot.address.IsValid()) return;
  const CAdapterFile file;
  if (!file.IsReadable()) return;
  const CPciCommonConfigHeader& header = slot.header;
  const std::string vendorSection = HexText(header.VendorId());
  std::string vendor;
  if (!file.GetVendorName(vendor, vendorSection.c_str(), "")) {
    TRACE(2, "\nCSystemAdapter      : WARNING! No vendor name found for vendor ID 0x%X sub vendor ID 0x%X!",
          header.VendorId(), header.SubsystemVendorId());
  }
  const std::string subVendorSection = header.SubsystemVendorId() != 0 ? HexText(header.SubsystemVendorId()) : "";
  std::string subVendor;
  if (subVendorSection.empty() || !file.GetSubVendorName(subVendor, subVendorSection.c_str())) {
    TRACE(2, "\nCSystemAdapter      : WARNING! No sub vendor name found for vendor ID 0x%X sub vendor ID 0x%X!",
          header.VendorId(), header.SubsystemVendorId());
  }
  m_FileDeviceName = ReadDeviceName(file, header, vendorSection, subVendorSection);
  m_FileVendorName = vendor;
  m_FileSubVendorName = subVendor;
}

const std::string& CSystemAdapter::GetShownVendorName() const {
  if (!m_FileSubVendorName.empty()) return m_FileSubVendorName;
  return m_FileVendorName.empty() ? VendorName : m_FileVendorName;
}

void CSystemAdapter::Dump(int level, CSystemAdapter& adapter) {
  if (!Debug.m_TraceActive.load(std::memory_order_relaxed)) return;
  const unsigned int traceLevel = static_cast<unsigned int>(std::max(level, 0));
  TRACE(traceLevel, "\n\nCSystemAdapter      : System Adapter:");
  TRACE(traceLevel, "\nCSystemAdapter      : ---------------");
  TRACE(traceLevel, "\nCSystemAdapter      : Device Name     : %s", adapter.DeviceName.c_str());
  TRACE(traceLevel, "\nCSystemAdapter      : Device Revision : %s", adapter.DeviceRevision.c_str());
  TRACE(traceLevel, "\nCSystemAdapter      : Device ID       : %s", adapter.DeviceIdText());
  TRACE(traceLevel, "\nCSystemAdapter      : Object Name     : %s", adapter.ObjectName.c_str());
  if (!adapter.m_NamesRead) {
    adapter.ScanPciNames(adapter.m_SlotData);
    adapter.m_NamesRead = true;
  }
  TRACE(traceLevel, "\nCSystemAdapter      : Vendor Name     : %s", adapter.GetShownVendorName().c_str());
  TRACE(traceLevel, "\nCSystemAdapter      : Enumerator      : %s", adapter.GetEnumerator().c_str());
  TRACE(traceLevel, "\nCSystemAdapter      : Class Name      : %s",
        adapter.DeviceId != nullptr ? adapter.ClassName.c_str() : "");
}
