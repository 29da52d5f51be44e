#include "ravctl/hardware/slot_records.h"

#include "ravctl/answer/json.h"
#include "ravctl/hardware/firmware_slots.h"
#include "ravctl/hardware/pci_records.h"
#include "ravctl/hardware/record.h"

namespace ravctl {

namespace {

Json SlotRecord(const FirmwareSlot& slot) {
  return {{"number", slot.number},
          {"designation", TextOrNull(slot.designation)},
          {"type", TextOrNull(slot.type)},
          {"width", TextOrNull(slot.width)},
          {"length", TextOrNull(slot.length)},
          {"usage", TextOrNull(slot.usage)},
          {"address", slot.place ? Json(slot.place->Text()) : Json()},
          {"card", nullptr},
          {"functions", Json::array()},
          {"is_onboard", slot.isOnboard},
          {"sources", slot.sources}};
}

std::string CardName(const Json& function) {
  for (const char* key : {"product", "sub_class", "class"}) {
    if (!function[key].is_null()) {
      return function[key].get<std::string>() + " [" + function["vendor_id"].get<std::string>() + ":" +
             function["device_id"].get<std::string>() + "]";
    }
  }
  return "";
}

// The bridge that the firmware names leads to the card and is none of its functions. A bridge of the card is one, but
// gives no name to it.
void AddFunction(const PciPlace& place, const FirmwareSlot& slot, const Json& function, Json& record) {
  const bool isBridge = function["is_bridge"] == true;
  if (isBridge && slot.place->IsSameDevice(place)) return;
  record["functions"].push_back(function["address"]);
  if (record["card"].is_null() && !isBridge) record["card"] = TextOrNull(CardName(function));
}

}  // namespace

Json ReadSlotRecords(bool withOnboard) {
  const std::vector<FirmwareSlot> slots = ReadFirmwareSlots();
  const PciFunctions functions;
  const Json pci = MakePciRecords(functions, slots);
  std::vector<Json> records;
  for (const FirmwareSlot& slot : slots)
    records.push_back(SlotRecord(slot));
  const SlotPlaces places(slots, functions);
  size_t index = 0;
  for (const auto& [place, header] : functions) {
    const Json& function = pci[index++];
    if (const auto answer = places.Find(place)) {
      AddFunction(place, *answer->slot, function, records[static_cast<size_t>(answer->slot - slots.data())]);
    }
  }
  Json shown = Json::array();
  for (Json& record : records) {
    if (withOnboard || record["is_onboard"] == false) shown.push_back(std::move(record));
  }
  return shown;
}

}  // namespace ravctl
