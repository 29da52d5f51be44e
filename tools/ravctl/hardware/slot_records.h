#pragma once

#include "ravctl/answer/output.h"

namespace ravctl {

// The system slots that the firmware describes as JSON objects in order of their numbers, as schemas/slots.json
// describes them: what the SMBIOS slot structures (type 9) and the PCI IRQ routing table say, the sources that agree
// about number and place in one record, and the PCI functions that the library places there. withOnboard: the devices
// of the board too (type 41, and the entries of the routing table without a slot).
Json ReadSlotRecords(bool withOnboard);

}  // namespace ravctl
