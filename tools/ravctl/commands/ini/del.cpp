// ini del: a key or a section goes.

#include "ravctl/commands/ini/change.h"
#include "ravctl/commands/ini/group.h"

namespace ravctl {

void AddIniDel(Command& ini) {
  auto change = std::make_shared<IniChange>();
  Command& del = ini.Add({"del",
                          "Delete a key or a whole section; exit status 1 when there is nothing to delete",
                          {{"ravctl ini del /etc/pelrix/Adapter.ini 8086 1521", "a key, with the comments before it"},
                           {"ravctl ini del --dry-run /etc/pelrix/Adapter.ini 8086", "the section: only show"}},
                          Effect::kChanges},
                         [change](Output& out) { return RunIniChange(*change, out); });
  del.AddRequired("FILE", &change->file, "INI file");
  del.AddRequired("SECTION", &change->section, "Section, without brackets");
  del.AddWord("KEY", &change->key, "Key; without it the section goes");
  AddIniChangeOptions(del, *change);
}

}  // namespace ravctl
