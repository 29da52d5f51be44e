#pragma once

#include <array>
#include <cstdint>
#include <string_view>

// Parsers of the lines in which the kernel lists PCI functions and ISA-era resources. Pure functions: text in, a record
// out; a line of another form gives false and leaves the record as it was. Views in a record point into the line.

// /proc/bus/pci/devices: "00fa 8086a2a1 10 df240000 0 0 0 f001 df234000 0 ...", numbers in hexadecimal. The first field
// must be there; what is missing behind it is 0.
struct PciDevicesLine {
  uint8_t bus = 0;
  uint8_t device = 0;
  uint8_t function = 0;
  uint16_t vendorId = 0;
  uint16_t deviceId = 0;
  uint32_t irq = 0;
  std::array<uint64_t, 7> addresses = {};  // six base addresses and the ROM address
};
bool ParsePciDevicesLine(std::string_view line, PciDevicesLine& out);

// /proc/interrupts: " 24:  1  0  IO-APIC-level  eth0" => 24, "IO-APIC-level", "eth0". Lines without a number in front
// are none of an IRQ.
struct InterruptLine {
  int irq = 0;
  std::string_view controller;  // at most 255 characters
  std::string_view device;      // may be empty
};
bool ParseInterruptLine(std::string_view line, InterruptLine& out);

// " 4: cascade" => 4, "cascade" (at most 255 characters)
struct DmaLine {
  int channel = 0;
  std::string_view name;
};
bool ParseDmaLine(std::string_view line, DmaLine& out);

// /proc/ioports and /proc/iomem: "0070-0077 : rtc" => 0x70, 0x77, "rtc" (at most 255 characters). A range that ends
// before it begins or has no name and an indented line, which lies inside the range above it, are none.
struct RangeLine {
  uint64_t first = 0;
  uint64_t last = 0;
  std::string_view name;
};
bool ParseRangeLine(std::string_view line, RangeLine& out);

// /proc/vmware/pci: "001:14.0 1000:1960 1014:0260 RAID megaraid 09/9/0x79 ...": IDs in hexadecimal, then behind three
// words the interrupt pin, the IRQ in decimal and the vector in hexadecimal.
struct VmwarePciLine {
  uint16_t vendorId = 0;
  uint16_t deviceId = 0;
  uint32_t irq = 0;
  uint32_t vector = 0;
};
bool ParseVmwarePciLine(std::string_view line, VmwarePciLine& out);

// The name of a classic Ethernet interface inside a device column: "5-edge, eth12-rx" => "eth12". At most two digits
// belong to it; empty when there is none.
std::string_view FindEthernetName(std::string_view device);
