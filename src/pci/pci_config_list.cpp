#include "pci/pci_config_list.h"

#include <iterator>
#include <new>
#include <utility>

#include "pci/device_bus_io.h"
#include "pci/pci_slot_map.h"
#include "trace/debug.h"

namespace {

// Tells the slot of each function, in the order in which the scan meets them: bridges before what is behind them.
class SlotFinder {
 public:
  // -1 when the slot is not known.
  int32_t FindSlot(const CPciAddress& address) {
    unsigned char slot = 0;
    if (m_SlotMap.GetPciSlotNumber(slot, address.bus, address.device, address.function, address.segment)) return slot;
    TRACE(4, "\nCPciConfigList      : Pci device %d at bus %d not found in BIOS routing table - look up bridge mapping",
          address.device, address.bus);
    const auto bridge = m_BridgeMapping.find({address.segment, address.bus});
    if (bridge == m_BridgeMapping.end()) {
      TRACE(4, "\nCPciConfigList      : No entry found in PCI bridge mapping table!");
      return -1;
    }
    TRACE(4, "\nCPciConfigList      : Pci bridge device at slot %d created bus no %d", bridge->second, address.bus);
    return bridge->second;
  }

  // What sits on the bus behind a bridge belongs to the slot of the bridge. A bridge without a slot adds nothing.
  void AddBridge(uint16_t segment, uint8_t secondaryBus, int32_t slot) {
    if (slot >= 0) m_BridgeMapping.insert_or_assign({segment, secondaryBus}, static_cast<uint8_t>(slot));
  }

 private:
  CPciSlotMap m_SlotMap;
  std::map<std::pair<uint16_t, uint8_t>, uint8_t> m_BridgeMapping;  // segment and secondary bus to slot
};

void TraceFunction(const CPciAddress& address, const CPciCommonConfigHeader& header) {
  if (!Debug.m_TraceActive) return;
  TRACE(3, "\nCPciConfigList      : ## Found PCI Device (Segment %d Bus %d, Device %d Function %d) ##", address.segment,
        address.bus, address.device, address.function);
  TRACE(3, "\nCPciConfigList      :    Header Type   : 0x%02X", header.HeaderType());
  TRACE(3, "\nCPciConfigList      :    Vendor Id     : 0x%04X   SubVendor Id: 0x%04X", header.VendorId(),
        header.SubsystemVendorId());
  TRACE(3, "\nCPciConfigList      :    Device Id     : 0x%04X   SubDevice Id: 0x%04X", header.DeviceId(),
        header.SubsystemId());
  TRACE(3, "\nCPciConfigList      :    Base Class    : 0x%02X     %s", header.BaseClass(),
        CPciCommonConfigHeader::GetPciBaseClassDescription(header));
  TRACE(3, "\nCPciConfigList      :    Sub Class     : 0x%02X     %s", header.SubClass(),
        CPciCommonConfigHeader::GetPciSubClassDescription(header));
}

void TraceSlot(int32_t slot) {
  if (slot < 0) {
    TRACE(3, "\nCPciConfigList      :    Slot          : N/A");
  } else {
    TRACE(3, "\nCPciConfigList      :    Slot          : %d", slot);
  }
}

// False, and no record, for a function that does not answer.
bool AddFunction(CPciConfigList& list, const CPciAddress& address, const CPciCommonConfigHeader& header,
                 SlotFinder* slots) {
  if (!header.IsPresent()) {
    TRACE(1, "\nCPciConfigList      : Invalid PCI device configuration! (Vendor: 0x%X Device: 0x%X)", header.VendorId(),
          header.DeviceId());
    return false;
  }
  TraceFunction(address, header);
  const int32_t slot = slots != nullptr ? slots->FindSlot(address) : -1;
  TraceSlot(slot);
  if (header.IsBridge()) {
    TRACE(3, "\nCPciConfigList      :    Brigde device:  Primary bus index  : %d", header.PrimaryBus());
    TRACE(3, "\nCPciConfigList      :    Secondary bus index: %d", header.SecondaryBus());
    if (slots != nullptr) slots->AddBridge(address.segment, header.SecondaryBus(), slot);
  }
  list.insert_or_assign(list.end(), address, CPciSlotData{address, header, slot, {}, {}});
  return true;
}

bool ReadHeader(CDeviceBusIo& device, const CPciAddress& address, CPciCommonConfigHeader& header) {
  unsigned length = CPciCommonConfigHeader::kSize;
  return device.GetPciConfigSpace(address.segment, address.bus, address.device, address.function, 0, length,
                                  header.bytes);
}

// The walk begins at 0000:00:00.0 whether that function exists or not.
constexpr CPciAddress kFirstAddress = {0, 0, 0, 0};

// Position of the first function to read after that one.
CDeviceBusIo::NameList::const_iterator SecondPosition(const CDeviceBusIo::NameList& names) {
  const auto first = names.find(kFirstAddress);
  return first == names.end() ? names.begin() : std::next(first);
}

}  // namespace

bool CPciConfigList::ScanPciSlots(CPciConfigList& list, bool withSlots) try {
  CDeviceBusIo device;
  SlotFinder slots;
  CPciCommonConfigHeader header;
  CPciAddress address = kFirstAddress;
  int count = 0;
  // A header of zeros is no function; the walk goes on behind it.
  if (!ReadHeader(device, address, header)) header = {};
  auto next = SecondPosition(device.Names());
  do {
    if (AddFunction(list, address, header, withSlots ? &slots : nullptr)) ++count;
    if (next == device.Names().end()) break;
    address = next->first;
    ++next;
  } while (ReadHeader(device, address, header));
  TRACE(2, "\nCPciConfigList      : %d PCI devices detected!", count);
  return !list.empty();
} catch (const std::bad_alloc&) {
  return !list.empty();
}
