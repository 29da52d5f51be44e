#pragma once

#include "ravctl/answer/json.h"

namespace ravctl {

// What a machine is beside its adapters, drives and volumes, for a comparison with later or with another: an object of
// lists of JSON objects, as ravctl schema inventory describes them.
//
//   firmware     BIOS, system, board and chassis
//   processors   those that are there, by socket
//   memory       the modules that are there, by locator
//   slots        as ravctl slots shows them
//   interfaces   the network interfaces but for the loopback
//   kernel       its release
//
// null instead of a list: this machine, or what was captured of it, does not tell.
Json ReadMachineRecords();

}  // namespace ravctl
