#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "platform/ini_file.h"
#include "support/fixture_root.h"

namespace {

using Texts = std::vector<std::string>;
using Entries = std::vector<std::pair<std::string, std::string>>;
using Sections = std::vector<std::pair<std::string, Entries>>;  // what a file holds, in its order

template <typename List>
auto Find(List& list, const std::string& name) {
  return std::find_if(list.begin(), list.end(), [&name](const auto& item) { return item.first == name; });
}

template <typename List>
typename List::value_type& FindOrAdd(List& list, const std::string& name) {
  const auto place = Find(list, name);
  return place != list.end() ? *place : list.emplace_back(name, typename List::value_type::second_type());
}

template <typename List>
bool Erase(List& list, const std::string& name) {
  return std::erase_if(list, [&name](const auto& item) { return item.first == name; }) > 0;
}

Sections ReadAll(const CIniFile& ini) {
  Texts names;
  ini.GetSections(names);
  Sections all;
  for (const std::string& section : names) {
    Texts keys;
    ini.GetEnums(keys, section.c_str());
    Entries& entries = all.emplace_back(section, Entries()).second;
    for (const std::string& key : keys) {
      ini.GetString(entries.emplace_back(key, "").second, section.c_str(), key.c_str(), "");
    }
  }
  return all;
}

}  // namespace

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
    Sections model{{"A", {{"k", "1"}, {"key", "2"}}}, {"B b", {}}, {" C ", {{"k.1", "\xFE"}}}};
    CIniFile ini;
    ASSERT_TRUE(ini.Open(root.HostPath("/model.ini").c_str(), true));
    for (int step = 0; step < 60; ++step) {
      const std::string& section = sections[random() % sections.size()];
      const std::string& key = keys[random() % keys.size()];
      const unsigned long action = random() % 10;
      if (action == 0) {
        ASSERT_EQ(ini.DeleteSection(section.c_str()), Erase(model, section));
      } else if (action < 3) {
        const auto place = Find(model, section);
        ASSERT_EQ(ini.DeleteKey(section.c_str(), key.c_str()), place != model.end() && Erase(place->second, key));
      } else {
        const std::string value = "v=[] #\x80" + std::string(random() % (step == 30 ? 990 : 30), 'x') + "]";
        ASSERT_TRUE(ini.SetString(section.c_str(), key.c_str(), value.c_str()));
        FindOrAdd(FindOrAdd(model, section).second, key).second = value;
      }
      ASSERT_EQ(ReadAll(ini), model) << "seed " << seed << ", step " << step;
    }
  }
}
