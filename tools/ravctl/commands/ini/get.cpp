// ini get: the value of a key, as the library reads it.

#include <algorithm>
#include <cerrno>
#include <optional>

#include "platform/ini_file.h"
#include "ravctl/answer/json.h"
#include "ravctl/base/files.h"
#include "ravctl/base/text.h"
#include "ravctl/commands/ini/group.h"

namespace ravctl {

namespace {

struct Options {
  std::string file, section, key;
  std::optional<std::string> defaultValue;
  bool isRaw = false;
};

bool HasKey(const CIniFile& ini, const Options& options) {
  std::vector<std::string> keys;
  ini.GetEnums(keys, options.section.c_str());
  return std::ranges::find(keys, options.key) != keys.end();
}

// "no such key: FILE: [section] key (did you mean that?)"
void WarnMissing(const CIniFile& ini, const Options& options, Output& out) {
  std::vector<std::string> names, keys;
  ini.GetSections(names);
  const bool hasSection = std::ranges::find(names, options.section) != names.end();
  ini.GetEnums(keys, options.section.c_str());
  for (std::string& name : names)
    name = '[' + name + ']';
  out.Warn(hasSection ? "no such key" : "no such section",
           options.file + ": [" + options.section + "]" + (hasSection ? " " + options.key : ""),
           DidYouMean(hasSection ? options.key : '[' + options.section + ']', hasSection ? keys : names,
                      "see ravctl ini sections --keys"));
}

void PrintValue(const Options& options, const char* source, const std::optional<std::string>& value, Output& out) {
  std::string text;
  if (value) text = (options.isRaw ? *value : Printable(*value)) + '\n';
  out.Print(kIniGet, text,
            {{"file", options.file},
             {"section", options.section},
             {"key", options.key},
             {"value", value ? Json(*value) : Json()},
             {"source", source}});
}

// A file that cannot be read would give the default, too: only one that is not there may.
ExitCode Run(const Options& options, Output& out) {
  const bool isThere = ReadFileIfThere(options.file).has_value();
  if (!isThere && !options.defaultValue) throw SystemFailure("cannot read", options.file, ENOENT);
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

}  // namespace

void AddIniGet(Command& ini) {
  auto options = std::make_shared<Options>();
  Command& get = ini.Add({"get",
                          "Show the value of a key; exit status 1 when there is none",
                          {{"ravctl ini get /etc/pelrix/Adapter.ini 8086 Vendor", "as the library reads it"},
                           {"ravctl ini get /etc/pelrix/Adapter.ini 8086 1521 --default unknown",
                            "also when the key is empty or there is no such file"}}},
                         [options](Output& out) { return Run(*options, out); });
  get.Answers({&kIniGet});
  get.AddRequired("FILE", &options->file, "INI file");
  get.AddRequired("SECTION", &options->section, "Section, without brackets");
  get.AddRequired("KEY", &options->key, "Key");
  get.AddOption("--default", &options->defaultValue, "TEXT", "What an empty or missing key gives");
  get.AddFlag("--raw", &options->isRaw, "Control bytes as they are instead of \\xNN");
}

}  // namespace ravctl
