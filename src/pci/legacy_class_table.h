#pragma once

#include <cstdint>

#include "pci/bus_table.h"

// The names and component types that the legacy tables give to PCI classes and to the ISA devices of the kernel's
// resource files. Constant data, usable from any thread.

struct LegacyClass {
  const char* name;  // never null
  BusComponentType type;
};

// The class of a PCI function; "Other" with the type kComponentOther for a class that the table does not know.
LegacyClass FindLegacyPciClass(uint8_t baseClass, uint8_t subClass, uint8_t interface, uint16_t vendorId,
                               uint16_t deviceId);

// The class of an ISA device by the name in the kernel's files, compared as a whole. A name that the table does not
// know gives "Unknown Device" and the type kComponentUnset.
LegacyClass FindLegacyIsaClass(const char* name);
