#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/export.h"

// One entry of the slot table: the system slot in which the device at a bus and device number sits. Packed bytes.
struct RAVD_EXPORT PciSlotData {
  uint8_t bus;           // 0-255
  uint8_t device;        // 0-31
  uint8_t slot;          // 0 = onboard
  uint8_t slotType;      // code of DMTF DSP0134, 7.10.1; 2 when the source has no type
  uint8_t currentUsage;  // code of DMTF DSP0134, 7.10.3; 4 = in use, 5 = unavailable, 2 = unknown

  // Whether the type is PCI Express or one of its relatives.
  bool IsSerialBus() const;

  // Whether the entry stands for the device. On a serial bus a slot has a bus of its own, on which the device number
  // says nothing: the bus alone decides.
  bool Matches(unsigned int onBus, unsigned int asDevice) const;

  // {0x3b, 0, 4, 0xAA, 4} => "PciSlotData 3b:0.** --> Slot 4 (Serial bus)"
  std::string ToString() const;
};
static_assert(sizeof(PciSlotData) == 5);

// As Matches. Not symmetric: the left one is the entry whose type decides how it is compared.
inline bool operator==(const PciSlotData& entry, const PciSlotData& value) {
  return entry.Matches(value.bus, value.device);
}

// Tells in which numbered system slot a PCI device sits, from what the firmware says: the PCI IRQ routing table and the
// SMBIOS system slot and onboard device structures.
//
// Used by one thread. The firmware is read once, by the first look-up, which needs root and takes its time; a machine
// that has no such tables is not asked again. Every failure is an empty list plus a trace line.
class RAVD_EXPORT CPciSlotMap {
 public:
  // slot is 0 unless an entry matches; entries in use go before others. Slot tables know neither functions nor
  // segments: both are ignored.
  bool GetPciSlotNumber(unsigned char& slot, unsigned int bus, unsigned int device, unsigned int function,
                        unsigned int segment);

  // All entries of the source in its order, read anew.
  static std::vector<PciSlotData> GetSlotMappingFromIrqRoutingTable();
  // System slots first. Left out are slots that are unavailable and structures too short for a bus and device number.
  static std::vector<PciSlotData> GetSlotMappingFromSMBIOS();

 private:
  void GetSlotMapping();
  static void UpdateSlotTypeFromSMBios(std::vector<PciSlotData>& irq, const std::vector<PciSlotData>& smbios);
  const PciSlotData* FindEntry(unsigned int bus, unsigned int device, bool inUseOnly) const;

  std::vector<PciSlotData> m_SlotTable;
  bool m_Loaded = false;
};
