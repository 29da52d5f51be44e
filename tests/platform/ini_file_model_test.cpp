#include <gtest/gtest.h>

#include <map>
#include <random>

#include "platform/ini_file.h"
#include "support/fixture_root.h"

using Texts = std::vector<std::string>;
using Model = std::map<std::string, std::map<std::string, std::string>>;  // values by section and key

static Model ReadAll(const CIniFile& ini) {
  Texts names;
  ini.GetSections(names);
  Model all;
  for (const std::string& section : names) {
    Texts keys;
    ini.GetEnums(keys, section.c_str());
    all[section];
    for (const std::string& key : keys) {
      ini.GetString(all[section][key], section.c_str(), key.c_str(), "");
    }
  }
  return all;
}

TEST(IniFileModel, EverythingWrittenReadsBackAndNothingElseChanges) {
  const Texts sections{"A", "B b", " C ", "[d", "Longer section name"};
  const Texts keys{"k", "key", "Key", "two words", "k.1", "\xFF%s"};
  const FixtureRoot root;
  for (unsigned int seed = 0; seed < 40; ++seed) {
    std::mt19937 random(seed);
    root.WriteFile("/model.ini",
                   "; first\nearly=1\n\n[A]\n; about k\nk=1\n\n;two\nkey = 2 ; two\nno sign\n\n\n; about B\n[B b]\n"
                   "[ C ]\n\nk.1=\xFE\n;last" +
                       std::string(seed % 2, '\n'));
    Model model{{"A", {{"k", "1"}, {"key", "2"}}}, {"B b", {}}, {" C ", {{"k.1", "\xFE"}}}};
    CIniFile ini;
    ASSERT_TRUE(ini.Open(root.HostPath("/model.ini").c_str(), true));
    for (int step = 0; step < 60; ++step) {
      const std::string& section = sections[random() % sections.size()];
      const std::string& key = keys[random() % keys.size()];
      const unsigned long action = random() % 10;
      if (action == 0) {
        ASSERT_EQ(ini.DeleteSection(section.c_str()), model.erase(section) == 1);
      } else if (action < 3) {
        const bool isThere = model.contains(section) && model[section].erase(key) == 1;
        ASSERT_EQ(ini.DeleteKey(section.c_str(), key.c_str()), isThere);
      } else {
        const std::string value = "v=[] #\x80" + std::string(random() % (step == 30 ? 990 : 30), 'x') + "]";
        ASSERT_TRUE(ini.SetString(section.c_str(), key.c_str(), value.c_str()));
        model[section][key] = value;
      }
      ASSERT_EQ(ReadAll(ini), model) << "seed " << seed << ", step " << step;
    }
  }
}
