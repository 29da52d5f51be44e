#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "ravctl/hardware/pci_functions.h"

namespace ravctl {

// A card slot or a device of the board as the firmware describes it. Texts are empty where a source has none.
struct FirmwareSlot {
  unsigned int number = 0;  // 0: the board itself
  std::string designation = {}, type = {}, width = {}, length = {}, usage = {};
  std::optional<PciPlace> place = {};  // none: the firmware does not tell it
  bool hasFunction = false;            // whether the source knows functions; without, the place is the whole device
  bool isSerial = false;               // of a kind that has a bus of its own, as PCI Express
  bool isInUse = false;
  bool isEmpty = false;  // the firmware calls it available or unavailable
  bool isOnboard = false;
  std::vector<std::string> sources = {};  // "SMBIOS type 9 (0x0011)", "$PIR"; those that agree share a slot
};

// By number: the SMBIOS slots (type 9) and devices of the board (type 41), then what the PCI IRQ routing table adds.
std::vector<FirmwareSlot> ReadFirmwareSlots();

// Tells which slot a function belongs to. An entry that names
// - a bridge stands for what sits behind it, down to a bridge that has a slot of its own;
// - a card stands for its functions, and on a serial bus behind a bridge for everything on that bus;
// - a host bridge, or a device of a root bus in a slot that is called empty, stands for nothing: zeros are how some
//   firmware says that it knows no place.
// Slots in use go before others. Slots and functions are borrowed.
class SlotPlaces {
 public:
  SlotPlaces(const std::vector<FirmwareSlot>& slots, const PciFunctions& functions);

  struct Answer {
    const FirmwareSlot* slot;
    bool isBehindBridge;  // the slot is that of a bridge in front of the function
  };
  std::optional<Answer> Find(const PciPlace& function) const;

 private:
  struct Entry {
    const FirmwareSlot* slot;
    bool isBridge;  // it names one
  };

  bool NamesCard(const FirmwareSlot& slot) const;
  const FirmwareSlot* FindNamed(const PciPlace& function) const;
  template <typename Condition>
  const FirmwareSlot* First(Condition fits) const;

  std::vector<Entry> m_Entries;  // that name something, slots in use first
  const PciFunctions& m_Functions;
};

}  // namespace ravctl
