#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "pci/pci_address.h"
#include "ravctl/answer/json.h"
#include "ravctl/answer/output.h"

namespace ravctl {

// What the records of the hardware commands are made of.

inline constexpr Type kPciAddress = Like(R"(^[0-9a-f]{4,5}:[0-9a-f]{2}:[0-9a-f]{2}\.[0-9a-f]$)");
// "0000:02:00.0", null for an invalid address.
Json AddressText(const CPciAddress& address);
// 0x1f, 4 => "001f"
std::string HexText(uint64_t value, int digits);
// "02:00:00:00:00:01"; null when all bytes are zero or there are none.
Json BytesText(std::span<const unsigned char> bytes);
// Without the blanks around it; null when nothing is left.
Json TextOrNull(std::string_view text);

// Slot 0 is the board itself: "onboard".
std::string SlotText(const Json& slot);

// Tells that something is missing from the answer because this user may not read the path; nothing when it can be read
// or does not exist.
void WarnUnreadable(Output& out, std::string_view what, const std::string& path);
// The same for slot numbers.
void WarnWithoutSlots(Output& out);

}  // namespace ravctl
