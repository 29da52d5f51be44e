#pragma once

#include "ravctl/answer/output.h"

namespace ravctl {

// The system slots that the firmware describes as JSON objects in order of their numbers, as schemas/slots.json
// describes them: what the firmware says (firmware_slots.h), and the PCI functions that stand there, the first that is
// no bridge as the card. withOnboard: the devices of the board too.
Json ReadSlotRecords(bool withOnboard);

}  // namespace ravctl
