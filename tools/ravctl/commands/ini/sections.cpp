// ini sections: the sections and keys, and whether a reader gets them.

#include "ravctl/answer/json.h"
#include "ravctl/base/files.h"
#include "ravctl/commands/ini/group.h"
#include "ravctl/ini/ini_scan.h"

namespace ravctl {

namespace {

struct Options {
  std::string file;
  bool hasKeys = false;
};

Table SectionTable(const IniScan& scan) {
  Table table(kIniSections);
  for (const IniSection& section : scan.sections) {
    table.Add({{"section", section.name},
               {"line", section.line},
               {"keys", section.entries.size()},
               {"read", section.isRead}});
  }
  return table;
}

Table KeyTable(const IniScan& scan) {
  Table table(kIniKeys);
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

ExitCode Run(const Options& options, Output& out) {
  const std::string content = ReadWholeFile(options.file);
  const IniScan scan = ScanIni(content);
  const Table table = options.hasKeys ? KeyTable(scan) : SectionTable(scan);
  out.Print(options.hasKeys ? kIniKeys : kIniSections, table);
  return table.Size() > 0 ? ExitCode::kDone : ExitCode::kNothingOrDifferent;
}

}  // namespace

void AddIniSections(Command& ini) {
  auto options = std::make_shared<Options>();
  Command& sections = ini.Add(
      {"sections",
       "List the sections with the number of their keys, and whether a reader gets them",
       {{"ravctl ini sections /etc/pelrix/Adapter.ini", "in the order of the file"},
        {"ravctl ini sections /etc/pelrix/Adapter.ini --keys -o section,key,value", "every key with its value"}}},
      [options](Output& out) { return Run(*options, out); });
  sections.Answers({&kIniSections, &kIniKeys});
  sections.AddRequired("FILE", &options->file, "INI file");
  sections.AddFlag("--keys", &options->hasKeys, "The keys with their values");
}

}  // namespace ravctl
