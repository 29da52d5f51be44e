#pragma once

#include "machine/machine_record.h"
#include "pci/pci_config_list.h"

// What the firmware's tables tell (DMTF DSP0134): the records machine, slot and dimm as machine_scan.h describes them.
// The functions are those that answer, by which the occupied slots are checked. Nothing is appended without tables.
void AppendFirmwareRecords(const CPciConfigList& functions, bool withSerialNumbers, MachineRecords& records);
