#pragma once

#include <functional>
#include <string>
#include <vector>

#include "ravctl/answer/json_name.h"
#include "ravctl/hardware/smbios_image.h"
#include "ravctl/line/command.h"

namespace ravctl {

// ravctl smbios ...
void AddSmbiosList(Command& smbios);
void AddSmbiosShow(Command& smbios);
void AddSmbiosDump(Command& smbios);
void AddSmbiosVerify(Command& smbios);

// What they answer.
extern const Schema kSmbiosList, kSmbiosShow, kSmbiosDump, kSmbiosVerify;

// What the commands share

// Which structures are asked for: "0x0011" is a handle, "17" a type, everything else part of the name of a type. No
// word chooses all.
class SmbiosChoice {
 public:
  // Throws CommandError (usage) for a word that is none of these.
  explicit SmbiosChoice(const std::vector<std::string>& words);

  bool Has(const SmbiosStructure& structure) const;

 private:
  void Add(const std::string& word);
  void AddByName(const std::string& word);

  std::vector<unsigned int> m_Handles;
  std::vector<unsigned int> m_Types;
};
void AddSmbiosChoice(Command& command, std::vector<std::string>& words);

// {handle, type, name, length}
Json SmbiosHeaderRow(const SmbiosStructure& structure);
std::string UpperHexText(std::span<const unsigned char> bytes);

// Warns of a damaged table, which JSON holds as well, before it prints. The command's status.
ExitCode FinishSmbios(const SmbiosImage& image, bool isFound, Output& out, const std::function<void()>& print);

}  // namespace ravctl
