// smbios show: structures with their fields and strings.

#include <algorithm>

#include "ravctl/answer/json.h"
#include "ravctl/base/text.h"
#include "ravctl/commands/smbios/group.h"
#include "ravctl/hardware/record.h"
#include "ravctl/hardware/smbios_names.h"

namespace ravctl {

namespace {

Json StructureData(const SmbiosStructure& structure) {
  Json data = SmbiosHeaderRow(structure);
  data["fields"] = Json::array();
  for (const SmbiosField& field : DecodeSmbiosFields(structure))
    data["fields"].push_back({{"name", field.name}, {"value", TextOrNull(field.value)}});
  data["strings"] = Json::array();
  for (const std::string_view text : structure.strings)
    data["strings"].push_back(text);
  data["bytes"] = UpperHexText(structure.area);
  return data;
}

std::string Line(const std::string& name, const std::string& value, size_t width) {
  return "  " + name + std::string(width - std::min(width, name.size()) + 2, ' ') + Printable(value) + "\n";
}

std::string StructureText(const Json& data, const Output& out) {
  std::string text =
      out.Colored(Color::kBold, data["handle"].get<std::string>() + "  " + data["name"].get<std::string>()) +
      "  (type " + data["type"].dump() + ", " + data["length"].dump() + " bytes)\n";
  size_t width = 0;
  for (const Json& field : data["fields"])
    width = std::max(width, field["name"].get_ref<const std::string&>().size());
  for (const Json& field : data["fields"])
    text += Line(field["name"], field["value"].is_null() ? "-" : field["value"].get<std::string>(), width);
  // Where fields name the strings, they are shown there.
  if (data["fields"].empty() || data["type"] == 11 || data["type"] == 12) {
    size_t number = 0;
    for (const Json& string : data["strings"])
      text += Line("String " + std::to_string(++number), string, 9);
  }
  if (data["fields"].empty()) text += Line("Bytes", data["bytes"], 9);
  return text + "\n";
}

ExitCode Run(const std::vector<std::string>& words, Output& out) {
  const SmbiosChoice choice(words);
  const SmbiosImage image = ReadSmbiosImage();
  Json data = Json::array();
  std::string text;
  for (const SmbiosStructure& structure : image.structures) {
    if (!choice.Has(structure)) continue;
    data.push_back(StructureData(structure));
    if (!out.IsJson()) text += StructureText(data.back(), out);
  }
  return FinishSmbios(image, !data.empty(), out, [&] { out.Print(kSmbiosShow, text, data); });
}

}  // namespace

void AddSmbiosShow(Command& smbios) {
  auto words = std::make_shared<std::vector<std::string>>();
  Command& show = smbios.Add({"show",
                              "Show structures with their fields and strings",
                              {{"ravctl smbios show 1", "the system: maker, product, serial number"},
                               {"ravctl smbios show 0x0011", "the structure with that handle"},
                               {"ravctl smbios show 'memory device' --json | jq '.data[].fields'", "the modules"}}},
                             [words](Output& out) { return Run(*words, out); });
  show.Answers({&kSmbiosShow});
  AddSmbiosChoice(show, *words);
}

}  // namespace ravctl
