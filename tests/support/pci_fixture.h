#pragma once

#include "support/fixture_root.h"

// One PCI function of a made-up machine, described by the fields of its configuration header.
struct FunctionDescription {
  std::string bus = "00";     // name of the bus directory
  std::string name = "00.0";  // name of the configuration file
  uint16_t vendor = 0x8086;
  uint16_t device = 0x0D57;
  uint32_t classCode = 0x060000;  // base class, sub class, programming interface
  uint8_t headerType = 0;
  uint16_t subVendor = 0;
  uint16_t subDevice = 0;
  uint8_t primaryBus = 0;
  uint8_t secondaryBus = 0;  // bridges
  uint8_t selfTest = 0;
  uint8_t interruptLine = 0;
  uint8_t interruptPin = 0;
  uint8_t revision = 0;
  std::vector<uint32_t> addresses = {};  // base address registers
};

std::string BuildHeader(const FunctionDescription& function);
void AddFunction(const FixtureRoot& root, const FunctionDescription& function);

// A line of /proc/bus/pci/devices with the addresses of the first base registers.
std::string DevicesLine(unsigned bus, unsigned device, unsigned function, unsigned vendor, unsigned deviceId,
                        unsigned irq, const std::vector<uint64_t>& addresses);
