#include "inventory/adapter_classes.h"

#include <algorithm>
#include <array>

namespace {

constexpr int kAny = -1;

struct ClassRow {
  uint8_t baseClass;
  int subClass;  // kAny: matches every subclass
  int vendorId;  // kAny: matches every vendor
  AdapterClass result;
};

// The first row that fits wins. Names and spellings reach clients and must not change.
constexpr auto kClassRows = std::to_array<ClassRow>({
    {0x00, 0x01, kAny, {"Display", false, false}},
    {0x01, 0x00, kAny, {"SCSIAdapter", true, false}},
    {0x01, 0x04, kAny, {"SCSIAdapter", true, false}},
    {0x01, 0x06, kAny, {"SCSIAdapter", true, false}},
    {0x01, 0x07, kAny, {"SCSIAdapter", true, false}},
    {0x01, 0x80, kAny, {"SCSIAdapter", true, false}},
    {0x01, 0x01, kAny, {"hdc", true, false}},
    {0x01, 0x02, kAny, {"fdc", false, false}},
    {0x01, 0x08, kAny, {"Non-Volatile-Memory", true, false}},
    {0x02, kAny, kAny, {"net", true, true}},
    {0x03, kAny, kAny, {"Display", true, false}},
    {0x04, 0x00, kAny, {"Display", false, false}},
    {0x04, 0x01, kAny, {"MEDIA", false, false}},
    {0x05, kAny, kAny, {"MTD", false, false}},
    {0x06, kAny, kAny, {"System", false, false}},
    {0x07, 0x00, kAny, {"Ports", false, false}},
    {0x07, 0x01, kAny, {"Ports", false, false}},
    {0x08, kAny, kAny, {"System", false, false}},
    {0x09, 0x00, kAny, {"Keyboard", false, false}},
    {0x09, 0x01, kAny, {"HIDClass", false, false}},
    {0x09, 0x02, kAny, {"Mouse", false, false}},
    {0x0B, kAny, kAny, {"System", false, false}},
    {0x0C, kAny, 0x10DF, {"SCSIAdapter", true, false}},
    {0x0C, kAny, 0x1077, {"SCSIAdapter", true, false}},
    {0x0C, kAny, 0x19A2, {"SCSIAdapter", true, false}},
    {0x0C, 0x00, kAny, {"1394", false, false}},
    {0x0C, 0x03, kAny, {"USB", false, false}},
    {0x0D, 0x00, kAny, {"Infrared", false, false}},
    {0x0D, 0x01, kAny, {"Infrared", false, false}},
});
static_assert(std::ranges::is_sorted(kClassRows, {}, &ClassRow::baseClass));

constexpr AdapterClass kUnknownClass = {"Unknown", false, false};

// By component type code.
constexpr auto kIsaClassNames = std::to_array<const char*>({
    "",
    "Disk Controller",
    "Tape Controller",
    "CD-ROM Contoller",  // as clients know it
    "Worm Controller",
    "Serial Controller",
    "Network Controller",
    "Display Controller",
    "Parallel Controller",
    "Pointer Controller",
    "Keyboard",
    "Audio Controller",
    "Other Controller",
    "Bridge Device",
    "CPU",
});
static_assert(kIsaClassNames.size() == 15);

constexpr bool Fits(int pattern, int value) {
  return pattern == kAny || pattern == value;
}

}  // namespace

AdapterClass FindAdapterClass(uint8_t baseClass, uint8_t subClass, uint16_t vendorId) {
  const auto row = std::ranges::find_if(kClassRows, [&](const ClassRow& each) {
    return each.baseClass == baseClass && Fits(each.subClass, subClass) && Fits(each.vendorId, vendorId);
  });
  return row == kClassRows.end() ? kUnknownClass : row->result;
}

const char* FindIsaClassName(int64_t componentType) {
  const bool known = componentType > 0 && componentType < static_cast<int64_t>(kIsaClassNames.size());
  return kIsaClassNames[known ? static_cast<size_t>(componentType) : 0];
}
