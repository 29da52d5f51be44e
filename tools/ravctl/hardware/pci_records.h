#pragma once

#include <vector>

#include "ravctl/answer/output.h"
#include "ravctl/hardware/firmware_slots.h"
#include "ravctl/hardware/pci_functions.h"

namespace ravctl {

// The PCI functions in address order as JSON objects, as ravctl schema pci describes them: what their header says, the
// driver, the slot and where its number comes from, and the bridge in front.
Json MakePciRecords(const PciFunctions& functions, const std::vector<FirmwareSlot>& slots);
// The same of this machine as it is now.
Json ReadPciRecords();

// The records in the order of a tree, each behind the bridge in front of it. A bridge that stands behind itself in a
// damaged machine is shown once.
struct PciTreeRow {
  const Json* record;
  std::optional<size_t> parent;  // index of a row before this one
};
std::vector<PciTreeRow> BuildPciTree(const Json& records);

}  // namespace ravctl
