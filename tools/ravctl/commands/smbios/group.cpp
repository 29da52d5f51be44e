// smbios: the firmware's description of the machine.

#include "ravctl/commands/smbios/group.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <map>
#include <numeric>

#include "firmware/little_endian.h"
#include "firmware/smbios_from_memory.h"
#include "firmware/smbios_walk.h"
#include "platform/descriptor_io.h"
#include "platform/unique_fd.h"
#include "ravctl/answer/record.h"
#include "ravctl/base/text.h"
#include "ravctl/hardware/smbios_image.h"
#include "ravctl/hardware/smbios_names.h"
#include "ravctl/line/command.h"

namespace ravctl {

namespace {

using Bytes = std::span<const unsigned char>;
using smbios_tables::_DMI_21_EPS;
using smbios_tables::_DMI_30_EPS;

constexpr size_t kBytesPerLine = 16;

std::string HandleText(unsigned int handle) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%04X", handle);
  return text;
}

std::string UpperHex(Bytes bytes) {
  return HexBytes({reinterpret_cast<const char*>(bytes.data()), bytes.size()}, "", kUpperHex);
}

// ---- which structures

class Choice {
 public:
  // "0x0011" is a handle, "17" a type, everything else part of the name of a type. None chooses all.
  explicit Choice(const std::vector<std::string>& words) {
    for (const std::string& word : words)
      Add(word);
  }

  bool Has(const SmbiosStructure& structure) const {
    return IsEmpty() || Contains(m_Handles, structure.handle) || Contains(m_Types, structure.type);
  }

 private:
  static bool Contains(const std::vector<unsigned int>& list, unsigned int value) {
    return std::ranges::find(list, value) != list.end();
  }
  bool IsEmpty() const { return m_Handles.empty() && m_Types.empty(); }

  static bool ParseNumber(std::string_view text, int base, unsigned int limit, unsigned int& value) {
    const auto result = std::from_chars(text.data(), text.data() + text.size(), value, base);
    return result.ec == std::errc() && result.ptr == text.data() + text.size() && value <= limit;
  }

  void Add(const std::string& word) {
    unsigned int value = 0;
    if (word.starts_with("0x") || word.starts_with("0X")) {
      if (!ParseNumber(std::string_view(word).substr(2), 16, 0xFFFF, value)) Refuse(word, "");
      m_Handles.push_back(value);
    } else if (word.find_first_not_of("0123456789") == std::string::npos) {
      if (!ParseNumber(word, 10, 0xFF, value)) Refuse(word, "");
      m_Types.push_back(value);
    } else {
      AddByName(word);
    }
  }

  void AddByName(const std::string& word) {
    const size_t before = m_Types.size();
    for (unsigned int type = 0; type <= 0xFF; ++type) {
      const std::string name = SmbiosTypeName(static_cast<uint8_t>(type));
      if (name != "Unknown" && MatchesPart(name, word)) m_Types.push_back(type);
    }
    if (m_Types.size() == before) Refuse(word, NearestMatch(word, SmbiosTypeNames()));
  }

  [[noreturn]] static void Refuse(const std::string& word, const std::string& nearest) {
    throw CommandError(ExitCode::kUsage, "no handle, type or name of a type", word,
                       nearest.empty() ? "a handle is 0x0011, a type 17" : "did you mean '" + nearest + "'?");
  }

  std::vector<unsigned int> m_Handles;
  std::vector<unsigned int> m_Types;
};

ExitCode Finish(const SmbiosImage& image, bool isFound, Output& out) {
  if (!image.IsDamaged()) return isFound ? ExitCode::kDone : ExitCode::kNothingOrDifferent;
  out.Warn("the SMBIOS table is damaged", image.error, "what could be read is shown; see ravctl smbios verify");
  return ExitCode::kInputDamaged;
}

// JSON holds the warnings, so they come before the answer.
template <typename PrintFunction>
ExitCode PrintAndFinish(const SmbiosImage& image, bool isFound, Output& out, PrintFunction print) {
  const ExitCode code = Finish(image, isFound, out);
  print();
  return code;
}

Json HeaderRow(const SmbiosStructure& structure) {
  return {{"handle", HandleText(structure.handle)},
          {"type", structure.type},
          {"name", SmbiosTypeName(structure.type)},
          {"length", structure.length}};
}

// ---- list

ExitCode RunList(const std::vector<std::string>& words, Output& out) {
  const Choice choice(words);
  const SmbiosImage image = ReadSmbiosImage();
  Table table({{.key = "handle", .heading = "HANDLE"},
               {.key = "type", .heading = "TYPE", .isRight = true},
               {.key = "length", .heading = "LENGTH", .isRight = true},
               {.key = "name", .heading = "NAME"},
               {.key = "first", .heading = "FIRST STRING"},
               {.key = "strings", .heading = "STRINGS", .isRight = true, .isUsual = false}});
  for (const SmbiosStructure& structure : image.structures) {
    if (!choice.Has(structure)) continue;
    Json row = HeaderRow(structure);
    row["strings"] = structure.strings.size();
    row["first"] = TextOrNull(structure.String(1));
    table.Add(std::move(row));
  }
  return PrintAndFinish(image, table.Size() > 0, out, [&] { out.Print({"smbios-list"}, table); });
}

// ---- show

Json StructureData(const SmbiosStructure& structure) {
  Json data = HeaderRow(structure);
  data["fields"] = Json::array();
  for (const SmbiosField& field : DecodeSmbiosFields(structure))
    data["fields"].push_back({{"name", field.name}, {"value", TextOrNull(field.value)}});
  data["strings"] = Json::array();
  for (const std::string_view text : structure.strings)
    data["strings"].push_back(text);
  data["bytes"] = UpperHex(structure.area);
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

ExitCode RunShow(const std::vector<std::string>& words, Output& out) {
  const Choice choice(words);
  const SmbiosImage image = ReadSmbiosImage();
  Json data = Json::array();
  std::string text;
  for (const SmbiosStructure& structure : image.structures) {
    if (!choice.Has(structure)) continue;
    data.push_back(StructureData(structure));
    if (!out.IsJson()) text += StructureText(data.back(), out);
  }
  return PrintAndFinish(image, !data.empty(), out, [&] { out.Print({"smbios-show"}, text, data); });
}

// ---- dump

struct DumpOptions {
  std::string table;
  std::string entryPoint;
};

// Serial numbers are nobody else's business: the file is the caller's alone.
void WriteNewFile(const std::string& path, Bytes bytes) {
  const UniqueFd file(::open(path.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC | O_NOFOLLOW, 0600));
  const int error = errno;
  if (!file && error == EEXIST) {
    throw CommandError(ExitCode::kUsage, "the file exists and is not overwritten", path, "choose another name");
  }
  if (!file) throw SystemFailure("cannot create", path, error);
  if (!WriteAllAt(file.Get(), {reinterpret_cast<const char*>(bytes.data()), bytes.size()}, 0)) {
    const int failure = errno;
    ::unlink(path.c_str());
    throw SystemFailure("cannot write", path, failure);
  }
}

std::string HexDump(const char* heading, Bytes bytes) {
  std::string text;
  CDataStream::DumpHex(text, bytes.data(), bytes.size(), true, true, kBytesPerLine, 1, "  ");
  return std::string(heading) + ", " + std::to_string(bytes.size()) + " bytes\n" + text + "\n";
}

ExitCode RunDump(const DumpOptions& options, Output& out) {
  const SmbiosImage image = ReadSmbiosImage();
  Json files = Json::array();
  std::string text;
  for (const auto& [path, bytes] :
       {std::pair{options.table, image.table.Bytes()}, std::pair{options.entryPoint, image.entryPoint.Bytes()}}) {
    if (path.empty()) continue;
    WriteNewFile(path, bytes);
    files.push_back(path);
    text += Printable(path) + ": " + std::to_string(bytes.size()) + " bytes\n";
  }
  if (files.empty()) {
    text = HexDump("Entry point", image.entryPoint.Bytes()) + HexDump("Structure table", image.table.Bytes());
  }
  out.Print({"smbios-dump"}, text,
            {{"source", image.source},
             {"entry_point", UpperHex(image.entryPoint.Bytes())},
             {"table", UpperHex(image.table.Bytes())},
             {"files", files}});
  return ExitCode::kDone;
}

// ---- verify

class Verification {
 public:
  explicit Verification(const SmbiosImage& image) : m_Image(image), m_Header(image.entryPoint.Bytes()) {
    CheckEntryPoint();
    CheckWalk();
    CheckEnd();
    for (const SmbiosStructure& structure : image.structures)
      CheckStructure(structure);
    CheckHandles();
  }

  const Table& Findings() const { return m_Table; }
  bool IsDamaged() const { return m_IsDamaged; }

 private:
  void Good(const char* check, const std::string& subject, const std::string& finding) {
    Add("ok", check, subject, finding);
  }
  void Odd(const char* check, const std::string& subject, const std::string& finding) {
    Add("warning", check, subject, finding);
  }
  void Bad(const char* check, const std::string& subject, const std::string& finding) {
    m_IsDamaged = true;
    Add("BAD", check, subject, finding);
  }
  void Judge(bool isGood, const char* check, const std::string& subject, const std::string& good,
             const std::string& bad) {
    if (isGood) {
      Good(check, subject, good);
    } else {
      Bad(check, subject, bad);
    }
  }
  void Add(const char* health, const char* check, const std::string& subject, const std::string& finding) {
    m_Table.Add({{"health", health}, {"check", check}, {"subject", subject}, {"finding", finding}});
  }

  bool HasAnchor(std::string_view anchor) const {
    return m_Header.size() >= anchor.size() &&
           std::equal(anchor.begin(), anchor.end(), m_Header.begin(),
                      [](char letter, unsigned char byte) { return static_cast<unsigned char>(letter) == byte; });
  }

  void CheckEntryPoint() {
    if (HasAnchor("_SM3_")) {
      CheckEntryPoint64();
    } else if (HasAnchor("_SM_")) {
      CheckEntryPoint32();
    } else {
      Bad("anchor", "entry point", "neither _SM_ nor _SM3_");
    }
  }

  // The bytes that the checksum is to cover; empty when the entry point is cut.
  Bytes Covered(const char* name, size_t lengthAt, size_t shortest) {
    const size_t length = ReadLittleEndian<uint8_t>(m_Header, lengthAt);
    const bool isGood = length >= shortest && length <= m_Header.size();
    Judge(isGood, "length", name, std::to_string(length) + " bytes",
          "says " + std::to_string(length) + " bytes, " + std::to_string(m_Header.size()) + " found, at least " +
              std::to_string(shortest) + " needed");
    return isGood ? m_Header.first(length) : Bytes();
  }

  void CheckSum(const char* check, const char* name, Bytes bytes) {
    const unsigned int sum = std::accumulate(bytes.begin(), bytes.end(), 0U) & 0xFF;
    Judge(sum == 0, check, name, "right", "the bytes sum to 0x" + HexText(sum, 2) + ", not to 0");
  }

  void CheckEntryPoint32() {
    constexpr const char* kName = "32-bit entry point";
    // 30 bytes in version 2.1, whose document had the length wrong; the fields are the same.
    const Bytes covered = Covered(kName, offsetof(_DMI_21_EPS, length), sizeof(_DMI_21_EPS) - 1);
    if (covered.empty()) return;
    CheckSum("checksum", kName, covered);
    if (m_Header.size() >= sizeof(_DMI_21_EPS)) {
      CheckSum("intermediate checksum", kName, m_Header.subspan(offsetof(_DMI_21_EPS, intermediateAnchor), 15));
    }
    const size_t tableLength = ReadLittleEndian<uint16_t>(m_Header, offsetof(_DMI_21_EPS, tableLength));
    Judge(tableLength == m_Image.used || tableLength == m_Image.table.Size(), "table length", kName,
          std::to_string(tableLength) + " bytes",
          "announced " + std::to_string(tableLength) + " bytes, found " + std::to_string(m_Image.used));
    const size_t count = ReadLittleEndian<uint16_t>(m_Header, offsetof(_DMI_21_EPS, structureCount));
    Judge(count == m_Image.structures.size(), "structure count", kName, std::to_string(count) + " structures",
          "announced " + std::to_string(count) + " structures, found " + std::to_string(m_Image.structures.size()));
    CheckLargest(kName);
  }

  void CheckLargest(const char* name) {
    const size_t largest = ReadLittleEndian<uint16_t>(m_Header, offsetof(_DMI_21_EPS, maximumStructureSize));
    for (size_t index = 0; index < m_Image.structures.size(); ++index) {
      const SmbiosStructure& structure = m_Image.structures[index];
      const bool isLast = index + 1 == m_Image.structures.size();
      const size_t size = (isLast ? m_Image.used : m_Image.structures[index + 1].offset) - structure.offset;
      if (largest != 0 && size > largest && structure.isWhole) {
        Odd("largest structure", name,
            "announced " + std::to_string(largest) + " bytes, " + HandleText(structure.handle) + " has " +
                std::to_string(size));
      }
    }
  }

  void CheckEntryPoint64() {
    constexpr const char* kName = "64-bit entry point";
    const Bytes covered = Covered(kName, offsetof(_DMI_30_EPS, length), sizeof(_DMI_30_EPS));
    if (covered.empty()) return;
    CheckSum("checksum", kName, covered);
    const size_t maximum = ReadLittleEndian<uint32_t>(m_Header, offsetof(_DMI_30_EPS, tableMaximumSize));
    Judge(m_Image.used <= maximum, "table length", kName,
          std::to_string(m_Image.used) + " of at most " + std::to_string(maximum) + " bytes",
          "announced at most " + std::to_string(maximum) + " bytes, found " + std::to_string(m_Image.used));
  }

  void CheckWalk() {
    Judge(!m_Image.IsDamaged(), "structures", "table", std::to_string(m_Image.structures.size()) + " structures walked",
          m_Image.error);
  }

  void CheckEnd() {
    const bool hasEnd = !m_Image.structures.empty() && m_Image.structures.back().type == kSmbiosEndOfTable;
    Judge(hasEnd, "end structure", "table", "there", "the table does not end with a structure of type 127");
    const size_t rest = m_Image.table.Size() - m_Image.used;
    if (rest > 0) Odd("rest", "table", std::to_string(rest) + " bytes behind the last structure");
  }

  void CheckStructure(const SmbiosStructure& structure) {
    const std::string subject = HandleText(structure.handle) + " " + SmbiosTypeName(structure.type);
    if (structure.length < sizeof(_DMI_20_HEADER)) {
      Bad("length", subject, "says " + std::to_string(structure.length) + " bytes, less than its header");
    } else if (structure.area.size() < structure.length) {
      Bad("length", subject,
          "says " + std::to_string(structure.length) + " bytes, " + std::to_string(structure.area.size()) +
              " are left of the table");
    } else if (!structure.isWhole) {
      Bad("strings", subject, "the strings do not end with two NUL bytes");
    }
    if (!structure.isWhole) return;
    for (const unsigned int number : MissingSmbiosStrings(structure)) {
      Odd("strings", subject,
          "a field names string " + std::to_string(number) + ", there are " + std::to_string(structure.strings.size()));
    }
  }

  void CheckHandles() {
    std::map<unsigned int, size_t> handles;
    for (const SmbiosStructure& structure : m_Image.structures)
      ++handles[structure.handle];
    for (const auto& [handle, count] : handles) {
      if (count > 1) Odd("handles", HandleText(handle), std::to_string(count) + " structures have this handle");
    }
  }

  static Color HealthColor(const Json& row) {
    if (row["health"] == "ok") return Color::kGreen;
    return row["health"] == "BAD" ? Color::kRed : Color::kYellow;
  }

  const SmbiosImage& m_Image;
  Bytes m_Header;
  bool m_IsDamaged = false;
  Table m_Table{{{.key = "health", .heading = "HEALTH", .color = HealthColor},
                 {.key = "check", .heading = "CHECK"},
                 {.key = "subject", .heading = "SUBJECT"},
                 {.key = "finding", .heading = "FINDING"}}};
};

ExitCode RunVerify(Output& out) {
  bool isDamaged = false;
  out.Print({"smbios-verify"}, VerifySmbios(ReadSmbiosImage(), isDamaged));
  return isDamaged ? ExitCode::kInputDamaged : ExitCode::kDone;
}

void AddChoice(CLI::App& command, std::vector<std::string>& words) {
  command.add_option("WHICH", words, "Handles (0x0011), types (17) or names of types ('memory dev'); all without");
}

}  // namespace

Table VerifySmbios(const SmbiosImage& image, bool& isDamaged) {
  const Verification verification(image);
  isDamaged = verification.IsDamaged();
  return verification.Findings();
}

void RegisterSmbios(CLI::App& root) {
  CLI::App& smbios = AddGroup(root, "smbios", "The firmware's own description of the machine (DMTF DSP0134)");
  auto listed = std::make_shared<std::vector<std::string>>();
  CLI::App& list = AddCommand(
      smbios,
      {"list",
       "List the structures: handle, type, length and name",
       {{"ravctl smbios list", "all of them"}, {"ravctl smbios list memory -o +strings", "those about memory"}}},
      [listed](Output& out) { return RunList(*listed, out); });
  AddChoice(list, *listed);

  auto shown = std::make_shared<std::vector<std::string>>();
  CLI::App& show = AddCommand(smbios,
                              {"show",
                               "Show structures with their fields and strings",
                               {{"ravctl smbios show 1", "the system: maker, product, serial number"},
                                {"ravctl smbios show 0x0011", "the structure with that handle"},
                                {"ravctl smbios show 'memory device' --json | jq '.data[].fields'", "the modules"}}},
                              [shown](Output& out) { return RunShow(*shown, out); });
  AddChoice(show, *shown);

  auto options = std::make_shared<DumpOptions>();
  CLI::App& dump =
      AddCommand(smbios,
                 {"dump",
                  "Print the bytes in hexadecimal, or write them to new files",
                  {{"ravctl smbios dump", "entry point and table for the eye"},
                   {"ravctl smbios dump --raw dmi.bin --entry-point entry.bin", "as they are, mode 0600"}}},
                 [options](Output& out) { return RunDump(*options, out); });
  dump.add_option("--raw", options->table, "Write the structure table to this new file")->type_name("FILE");
  dump.add_option("--entry-point", options->entryPoint, "Write the entry point to this new file")->type_name("FILE");

  AddCommand(smbios,
             {"verify",
              "Check entry point and table strictly; exit status 5 when something is damaged",
              {{"ravctl smbios verify", "one line a finding"},
               {"ravctl smbios verify --json | jq '.data[] | select(.health != \"ok\")'", "what is wrong"}}},
             [](Output& out) { return RunVerify(out); });
}

}  // namespace ravctl
