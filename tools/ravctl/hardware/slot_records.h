#pragma once

#include "ravctl/hardware/record.h"

namespace ravctl {

inline constexpr auto kSlotFields = std::to_array<Field>({
    {"number",
     kCount,
     "number of the slot; 0 is the board itself",
     {.heading = "SLOT", .format = SlotText, .isWord = true}},
    {"designation", kTextOrNull, "what is printed beside it"},
    {"type_text",
     kTextOrNull,
     "what fits into it, with the width of the bus",
     {.heading = "TYPE", .where = Where::kTable}},
    {"type", kTextOrNull, "what fits into it", {"TYPE ALONE", false}},
    {"usage", kTextOrNull, "whether something is in it", {.heading = "USE"}},
    {"address", OrNull(kPciAddress),
     "as the firmware says, function 0 where its table knows no functions; null when it says none"},
    {"card", kTextOrNull, "what is in it"},
    {"sources", kTexts, "which firmware tables say so", {.heading = "SAID BY"}},
    {"width", kTextOrNull, "width of the bus", kOnRequest},
    {"length", kTextOrNull, "how long a card may be", kOnRequest},
    {"functions", kTexts, "PCI functions of the card", kOnRequest},
    {"is_onboard", kBoolean, "whether it is a device of the board", {"ONBOARD", false}},
});

// The system slots that the firmware describes as JSON objects in order of their numbers, as kSlotFields
// describes them: what the firmware says (firmware_slots.h), and the PCI functions that stand there, the first that is
// no bridge as the card. withOnboard: the devices of the board too.
Json ReadSlotRecords(bool withOnboard);

}  // namespace ravctl
