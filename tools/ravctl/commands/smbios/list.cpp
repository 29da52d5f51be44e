// smbios list: the structures, one a line.

#include "ravctl/answer/json.h"
#include "ravctl/commands/smbios/group.h"
#include "ravctl/hardware/record.h"
#include "ravctl/hardware/smbios_names.h"

namespace ravctl {

namespace {

ExitCode Run(const std::vector<std::string>& words, Output& out) {
  const SmbiosChoice choice(words);
  const SmbiosImage image = ReadSmbiosImage();
  Table table(kSmbiosList);
  for (const SmbiosStructure& structure : image.structures) {
    if (!choice.Has(structure)) continue;
    Json row = SmbiosHeaderRow(structure);
    row["strings"] = structure.strings.size();
    row["first"] = TextOrNull(structure.String(1));
    table.Add(std::move(row));
  }
  return FinishSmbios(image, table.Size() > 0, out, [&] { out.Print(kSmbiosList, table); });
}

}  // namespace

void AddSmbiosList(Command& smbios) {
  auto words = std::make_shared<std::vector<std::string>>();
  Command& list = smbios.Add(
      {"list",
       "List the structures: handle, type, length and name",
       {{"ravctl smbios list", "all of them"}, {"ravctl smbios list memory -o +strings", "those about memory"}}},
      [words](Output& out) { return Run(*words, out); });
  list.Answers({&kSmbiosList});
  AddSmbiosChoice(list, *words);
}

}  // namespace ravctl
