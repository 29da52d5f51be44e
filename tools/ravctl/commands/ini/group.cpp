// ini get, sections and check: what the library reads of an INI file, and what it does not.

#include "ravctl/commands/ini/group.h"

#include <algorithm>
#include <optional>

#include "platform/ini_file.h"
#include "ravctl/base/text.h"
#include "ravctl/ini/ini_scan.h"
#include "ravctl/line/command.h"
#include "ravctl/registry/private_copy.h"

namespace ravctl {

namespace {

std::string ReadIni(const std::string& path) {
  std::optional<std::string> content = ReadIfThere(path);
  if (!content) throw SystemFailure("cannot open", path, ENOENT);
  return *std::move(content);
}

struct GetOptions {
  std::string file, section, key;
  std::optional<std::string> defaultValue;
  bool isRaw = false;
};

bool HasKey(const CIniFile& ini, const GetOptions& options) {
  std::vector<std::string> keys;
  ini.GetEnums(keys, options.section.c_str());
  return std::ranges::find(keys, options.key) != keys.end();
}

// "no such key: FILE: [section] key (did you mean that?)"
void WarnMissing(const CIniFile& ini, const GetOptions& options, Output& out) {
  std::vector<std::string> names, keys;
  ini.GetSections(names);
  const bool hasSection = std::ranges::find(names, options.section) != names.end();
  ini.GetEnums(keys, options.section.c_str());
  const std::string near =
      hasSection ? NearestMatch(options.key, keys) : NearestMatch('[' + options.section + ']', [&names] {
        for (std::string& name : names)
          name = '[' + name + ']';
        return names;
      }());
  out.Warn(hasSection ? "no such key" : "no such section",
           options.file + ": [" + options.section + "]" + (hasSection ? " " + options.key : ""),
           near.empty() ? "see ravctl ini sections --keys" : "did you mean " + near + "?");
}

void PrintValue(const GetOptions& options, const char* source, const std::optional<std::string>& value, Output& out) {
  std::string text;
  if (value) text = (options.isRaw ? *value : Printable(*value)) + '\n';
  out.Print({"ini-get"}, text,
            {{"file", options.file},
             {"section", options.section},
             {"key", options.key},
             {"value", value ? Json(*value) : Json()},
             {"source", source}});
}

// A file that cannot be read would give the default, too: only one that is not there may.
ExitCode RunGet(const GetOptions& options, Output& out) {
  const bool isThere = ReadIfThere(options.file).has_value();
  if (!isThere && !options.defaultValue) throw SystemFailure("cannot open", options.file, ENOENT);
  CIniFile ini;
  ini.Open(options.file.c_str());
  std::string value;
  ini.GetString(value, options.section.c_str(), options.key.c_str(), "");
  if (!value.empty() || (!options.defaultValue && HasKey(ini, options))) {
    PrintValue(options, "file", value, out);
    return ExitCode::kDone;
  }
  if (options.defaultValue) {
    PrintValue(options, "default", options.defaultValue, out);
    return ExitCode::kDone;
  }
  WarnMissing(ini, options, out);
  PrintValue(options, "none", std::nullopt, out);
  return ExitCode::kNothingOrDifferent;
}

void AddGet(CLI::App& ini) {
  auto options = std::make_shared<GetOptions>();
  CLI::App& get = AddCommand(ini,
                             {"get",
                              "Show the value of a key; exit status 1 when there is none",
                              {{"ravctl ini get /etc/pelrix/Adapter.ini 8086 Vendor", "as the library reads it"},
                               {"ravctl ini get /etc/pelrix/Adapter.ini 8086 1521 --default unknown",
                                "also when the key is empty or there is no such file"}}},
                             [options](Output& out) { return RunGet(*options, out); });
  get.add_option("FILE", options->file, "INI file")->required();
  get.add_option("SECTION", options->section, "Section, without brackets")->required();
  get.add_option("KEY", options->key, "Key")->required();
  get.add_option("--default", options->defaultValue, "What an empty or missing key gives")->type_name("TEXT");
  get.add_flag("--raw", options->isRaw, "Control bytes as they are instead of \\xNN");
}

struct SectionsOptions {
  std::string file;
  bool hasKeys = false;
};

Table SectionTable(const IniScan& scan) {
  Table table({{.key = "section", .heading = "SECTION"},
               {.key = "line", .heading = "LINE", .isRight = true},
               {.key = "keys", .heading = "KEYS", .isRight = true},
               {.key = "read", .heading = "READ"}});
  for (const IniSection& section : scan.sections) {
    table.Add({{"section", section.name},
               {"line", section.line},
               {"keys", section.entries.size()},
               {"read", section.isRead}});
  }
  return table;
}

Table KeyTable(const IniScan& scan) {
  Table table({{.key = "section", .heading = "SECTION"},
               {.key = "key", .heading = "KEY"},
               {.key = "value", .heading = "VALUE"},
               {.key = "line", .heading = "LINE", .isRight = true},
               {.key = "read", .heading = "READ"}});
  for (const IniSection& section : scan.sections) {
    for (const IniEntry& entry : section.entries) {
      table.Add({{"section", section.name},
                 {"key", entry.key},
                 {"value", entry.value},
                 {"line", entry.line},
                 {"read", entry.isRead}});
    }
  }
  return table;
}

ExitCode RunSections(const SectionsOptions& options, Output& out) {
  const std::string content = ReadIni(options.file);
  const IniScan scan = ScanIni(content);
  const Table table = options.hasKeys ? KeyTable(scan) : SectionTable(scan);
  out.Print({options.hasKeys ? "ini-keys" : "ini-sections"}, table);
  return table.Size() > 0 ? ExitCode::kDone : ExitCode::kNothingOrDifferent;
}

void AddSections(CLI::App& ini) {
  auto options = std::make_shared<SectionsOptions>();
  CLI::App& sections = AddCommand(
      ini,
      {"sections",
       "List the sections with the number of their keys, and whether a reader gets them",
       {{"ravctl ini sections /etc/pelrix/Adapter.ini", "in the order of the file"},
        {"ravctl ini sections /etc/pelrix/Adapter.ini --keys -o section,key,value", "every key with its value"}}},
      [options](Output& out) { return RunSections(*options, out); });
  sections.add_option("FILE", options->file, "INI file")->required();
  sections.add_flag("--keys", options->hasKeys, "The keys with their values");
}

Color SeverityColor(const Json& row) {
  return row["severity"] == "damage" ? Color::kRed : Color::kYellow;
}

ExitCode RunCheck(const std::string& file, Output& out) {
  const std::string content = ReadIni(file);
  const std::vector<IniFinding> findings = ScanIni(content).findings;
  Table table({{.key = "line", .heading = "LINE", .isRight = true},
               {.key = "severity", .heading = "SEVERITY", .color = SeverityColor},
               {.key = "kind", .heading = "KIND"},
               {.key = "finding", .heading = "FINDING"}});
  for (const IniFinding& finding : findings) {
    table.Add({{"line", finding.line},
               {"severity", finding.isDamage ? "damage" : "oddity"},
               {"kind", finding.kind},
               {"finding", finding.text}});
  }
  out.Print({"ini-check"}, table);
  if (std::ranges::any_of(findings, &IniFinding::isDamage)) return ExitCode::kInputDamaged;
  return findings.empty() ? ExitCode::kDone : ExitCode::kNothingOrDifferent;
}

void AddCheck(CLI::App& ini) {
  auto file = std::make_shared<std::string>();
  CLI::App& check =
      AddCommand(ini,
                 {"check",
                  "Find lines that reach no reader (damage, exit status 5) and what may surprise (oddity, 1)",
                  {{"ravctl ini check /etc/pelrix/Adapter.ini", "a line for each finding, none for a sound file"},
                   {"ravctl ini check /etc/pelrix/Adapter.ini --json", "the same for a program"}}},
                 [file](Output& out) { return RunCheck(*file, out); });
  check.add_option("FILE", *file, "INI file")->required();
}

}  // namespace

void RegisterIni(CLI::App& root) {
  CLI::App& ini = AddGroup(root, "ini", "Read, check and change INI files as the library does");
  AddGet(ini);
  AddIniChanges(ini);
  AddSections(ini);
  AddCheck(ini);
}

}  // namespace ravctl
