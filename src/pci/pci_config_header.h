#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/export.h"

// The first 64 bytes of a function's configuration space as the hardware stores them: little-endian, type 0 and type 1
// headers of PCI Local Bus 3.0, 6.1. A new one is all zero. A plain value: it may be copied byte by byte, and
// every accessor reads inside the 64 bytes.
class RAVD_EXPORT CPciCommonConfigHeader {
 public:
  static constexpr size_t kSize = 64;  // bytes

  unsigned char bytes[kSize] = {};  // as read

  // The fields of every layout, as the standard names them:
  uint16_t VendorId() const { return Word(0); }
  uint16_t DeviceId() const { return Word(2); }
  uint8_t Revision() const { return bytes[8]; }
  uint8_t ProgrammingInterface() const { return bytes[9]; }
  uint8_t SubClass() const { return bytes[10]; }
  uint8_t BaseClass() const { return bytes[11]; }
  uint8_t HeaderType() const { return bytes[14]; }
  uint8_t HeaderLayout() const { return HeaderType() & 0x7F; }  // without the multi-function bit
  uint8_t SelfTest() const { return bytes[15]; }
  uint8_t InterruptLine() const { return bytes[60]; }
  uint8_t InterruptPin() const { return bytes[61]; }

  // Bridge layout is bit 0 of the header type, so a multi-function bridge (0x81) is one as well.
  bool IsBridge() const { return (HeaderType() & 0x01) != 0; }
  // The bus in front of a bridge and the one behind it. Only where IsBridge():
  uint8_t PrimaryBus() const { return bytes[24]; }
  uint8_t SecondaryBus() const { return bytes[25]; }

  // 0 in every layout but 0, which alone has these fields:
  uint16_t SubsystemVendorId() const { return HeaderLayout() == 0 ? Word(44) : uint16_t{0}; }
  uint16_t SubsystemId() const { return HeaderLayout() == 0 ? Word(46) : uint16_t{0}; }

  // Whether a function answers at all: vendor neither 0x0000 nor 0xFFFF, device not 0.
  bool IsPresent() const { return VendorId() != 0 && VendorId() != 0xFFFF && DeviceId() != 0; }

  // What the class codes mean (PCI Code and ID Assignment). Constant texts, never null; "Unknown" for a base class that
  // has no name, and the name of the base class for a subclass that has none.
  // 0x0C, 0x03 => "Serial bus controller" and "Universal Serial Bus (USB)":
  static const char* GetPciBaseClassDescription(const CPciCommonConfigHeader& header);
  static const char* GetPciSubClassDescription(const CPciCommonConfigHeader& header);

 private:
  uint16_t Word(size_t offset) const { return static_cast<uint16_t>(bytes[offset] | (bytes[offset + 1] << 8)); }
};

static_assert(sizeof(CPciCommonConfigHeader) == CPciCommonConfigHeader::kSize);
