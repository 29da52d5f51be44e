// ini set: one key.

#include "ravctl/commands/ini/change.h"
#include "ravctl/commands/ini/group.h"

namespace ravctl {

void AddIniSet(Command& ini) {
  auto change = std::make_shared<IniChange>();
  change->key.emplace();
  change->value.emplace();
  Command& set = ini.Add(
      {"set",
       "Set a key; section and file are made when missing",
       {{"ravctl ini set /etc/pelrix/Adapter.ini 8086 1521 \"Quad Port\"", "write the key"},
        {"ravctl ini set --dry-run /etc/pelrix/Adapter.ini 8086 1521 \"Quad Port\"", "only show what would change"},
        {"ravctl ini set -- /etc/pelrix/Adapter.ini 8086 Offset -5", "a value that begins with a dash"}},
       Effect::kChanges},
      [change](Output& out) { return RunIniChange(*change, out); });
  set.AddRequired("FILE", &change->file, "INI file");
  set.AddRequired("SECTION", &change->section, "Section, without brackets");
  set.AddRequired("KEY", &*change->key, "Key");
  set.AddRequired("VALUE", &*change->value, "Value; an empty one reads as the default");
  AddIniChangeOptions(set, *change);
}

}  // namespace ravctl
