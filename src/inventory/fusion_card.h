#pragma once

#include <string>
#include <vector>

#include "pci/pci_address.h"

// What the Fusion-io driver publishes about its flash cards below /proc/fusion. Cards are numbered from 0. Stateless.

// Texts of the board information file; "" for each that the file does not have.
struct CFusionBoardInfo {
  std::string vendor;
  std::string productName;
  std::string serialNumber;
};

// "Fusion-io ioDrive" / ... / "Product: ioDrive2 1.2TB" / "SN: 1149D0969" => "Fusion-io", "ioDrive2 1.2TB", "1149D0969"
CFusionBoardInfo ParseFusionBoardInfo(const std::vector<std::string>& lines);
// All texts empty when the file cannot be read.
CFusionBoardInfo ReadFusionBoardInfo(int card);

// Name of the card's block device, "fioa". False when there is no such card.
bool GetFusionBlockDevice(std::string& name, int card);
// False when neither of the two places gives an address; pci is then unchanged.
bool GetFusionPciAddress(CPciAddress& pci, int card);
