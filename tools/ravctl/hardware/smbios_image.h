#pragma once

#include <span>
#include <string>
#include <vector>

#include "firmware/data_stream.h"

namespace ravctl {

// One structure of the table. Bytes and texts point into the image and live as long as it does.
struct SmbiosStructure {
  uint8_t type = 0;
  uint8_t length = 0;  // as the structure says
  uint16_t handle = 0;
  uint16_t version = 0;                   // of the standard that the table follows: 0x0206; 0 when nothing tells it
  size_t offset = 0;                      // in the table
  std::span<const unsigned char> area;    // formatted area, header included, cut at the end of the table
  std::vector<std::string_view> strings;  // number 1 first
  bool isWhole = false;                   // area and strings lie inside the table, the strings end in two NULs

  // The string with that number; empty for 0 and for one that the structure does not have.
  std::string_view String(unsigned int number) const;
  bool HasString(unsigned int number) const { return number == 0 || number <= strings.size(); }
};

// The SMBIOS data of the machine as the first source of the library has it, with the structures as far as they could
// be walked.
struct SmbiosImage {
  std::string source;  // where it was read: "sysfs", "memory"...
  CDataStream entryPoint;
  CDataStream table;
  std::vector<SmbiosStructure> structures;  // in table order
  size_t used = 0;                          // bytes of the table that the structures take
  std::string error;                        // of the walk, one line; empty when it reached the end

  SmbiosImage() = default;
  SmbiosImage(const SmbiosImage&) = delete;
  SmbiosImage& operator=(const SmbiosImage&) = delete;
  SmbiosImage(SmbiosImage&&) = default;
  SmbiosImage& operator=(SmbiosImage&&) = default;

  bool IsDamaged() const { return !error.empty(); }
};

// Throws CommandError when the machine has no SMBIOS data or this user may not read it.
SmbiosImage ReadSmbiosImage();
// The same, without an image when there is none that can be read.
bool FindSmbiosImage(SmbiosImage& image);

// Walks the table of the image.
void WalkSmbiosImage(SmbiosImage& image);

// The version that the entry point announces, 0x0206 for 2.6; 0 for none that is known. 2.31, 2.33 and 2.51 are what
// some firmware writes for a 2.3, a 2.3 and a 2.6.
uint16_t SmbiosVersion(std::span<const unsigned char> entryPoint);

// Entry point and table in the one file that `dmidecode --from-dump` reads: the table at offset 32, which the entry
// point says along with its size. Throws CommandError for an entry point that is none.
std::string SmbiosDumpFile(const SmbiosImage& image);

}  // namespace ravctl
