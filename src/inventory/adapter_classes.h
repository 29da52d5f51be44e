#pragma once

#include <cstdint>

// What the inventory calls the classes of adapters. Constant data, usable from any thread.

struct AdapterClass {
  const char* name;  // never null
  bool hasDriver;    // the bound driver is looked up
  bool hasMac;       // the network interface and its addresses are looked up
};

// The class of a PCI function by base class, subclass and, for serial bus controllers, vendor: the makers of Fibre
// Channel adapters are known there. "Unknown" without look-ups for everything else.
//   0x02, 0x80 => "net", driver and MAC    0x0C, 0x03 of vendor 0x8086 => "USB"    0x0C, 0x04 of 0x1077 =>
//   "SCSIAdapter"
AdapterClass FindAdapterClass(uint8_t baseClass, uint8_t subClass, uint16_t vendorId);

// Class name of an ISA device by the component type code of its bus table entry; "" for a code without a name.
const char* FindIsaClassName(int64_t componentType);
