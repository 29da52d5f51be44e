#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "ravctl/hardware/smbios_image.h"

// What the numbers of SMBIOS structures mean (DMTF DSP0134). Constant tables.
namespace ravctl {

// "Memory Device" for 17; "OEM-specific" from 128 on, "Unknown" for a type without a name.
std::string SmbiosTypeName(uint8_t type);
// The names of the types, in order.
std::vector<std::string> SmbiosTypeNames();

// 0x0011 as "0x0011"
std::string SmbiosHandleText(unsigned int handle);

struct SmbiosField {
  std::string name;
  std::string value;  // empty: the structure leaves it out
};

// The fields of a structure that are known, as far as its formatted area reaches, in the order of the area.
std::vector<SmbiosField> DecodeSmbiosFields(const SmbiosStructure& structure);

// Numbers of strings that the fields name and the structure does not have.
std::vector<unsigned int> MissingSmbiosStrings(const SmbiosStructure& structure);

// Names of codes in the system slot structure; "0x2A" for a code without one.
std::string SlotTypeName(uint8_t code);
std::string SlotWidthName(uint8_t code);
std::string SlotUsageName(uint8_t code);
std::string SlotLengthName(uint8_t code);

}  // namespace ravctl
