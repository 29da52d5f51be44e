// Long series of generated edits and look-ups, compared with models that are as simple as possible.

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <sstream>

#include "platform/ini_file.h"
#include "support/fixture_root.h"

namespace {

using Texts = std::vector<std::string>;
using Entries = std::vector<std::pair<std::string, std::string>>;

class Random {
 public:
  explicit Random(unsigned int seed) : m_Engine(seed) {}

  size_t Below(size_t limit) { return m_Engine() % limit; }
  const std::string& OneOf(const Texts& texts) { return texts[Below(texts.size())]; }

 private:
  std::mt19937 m_Engine;
};

template <typename List>
auto Find(List& list, const std::string& name) {
  return std::find_if(list.begin(), list.end(), [&name](const auto& item) { return item.first == name; });
}

// Sections in the order of the file, and the entries of each.
class Model {
 public:
  explicit Model(std::vector<std::pair<std::string, Entries>> sections) : m_Sections(std::move(sections)) {}

  void Set(const std::string& section, const std::string& key, const std::string& value) {
    auto place = Find(m_Sections, section);
    if (place == m_Sections.end()) place = m_Sections.insert(place, {section, {}});
    const auto entry = Find(place->second, key);
    if (entry != place->second.end()) {
      entry->second = value;
    } else {
      place->second.emplace_back(key, value);
    }
  }

  bool Delete(const std::string& section, const std::string* key) {
    const auto place = Find(m_Sections, section);
    if (place == m_Sections.end()) return false;
    if (key == nullptr) return m_Sections.erase(place), true;
    const auto entry = Find(place->second, *key);
    return entry != place->second.end() && (place->second.erase(entry), true);
  }

  void ExpectIn(const CIniFile& ini) const {
    Texts sections;
    ini.GetSections(sections);
    ASSERT_EQ(sections.size(), m_Sections.size());
    for (size_t place = 0; place < sections.size(); ++place) {
      ASSERT_EQ(sections[place], m_Sections[place].first);
      Texts keys;
      ini.GetEnums(keys, sections[place].c_str());
      Entries entries;
      for (const std::string& key : keys) {
        std::string value;
        ASSERT_TRUE(ini.GetString(value, sections[place].c_str(), key.c_str(), ""));
        entries.emplace_back(key, value);
      }
      ASSERT_EQ(entries, m_Sections[place].second) << sections[place];
    }
  }

 private:
  std::vector<std::pair<std::string, Entries>> m_Sections;
};

// Line by line from a stream; a line that is too long is cut into pieces.
std::string LookUp(const std::string& content, const std::string& section, const std::string& key) {
  const auto trim = [](std::string text) {
    text.erase(0, std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size()));
    text.erase(text.find_last_not_of(" \t\n\v\f\r") + 1);
    return text;
  };
  std::istringstream stream(content);
  bool isInside = false;
  for (std::string whole; std::getline(stream, whole);) {
    for (size_t begin = 0; begin < whole.size(); begin += 1023) {
      const std::string piece = whole.substr(begin, 1023);
      const std::string line = trim(piece.substr(0, piece.find(';')));
      if (line.starts_with('[')) {
        if (isInside) return "";
        isInside = line == "[" + section + "]";
      } else if (const size_t assignment = line.find('='); isInside && assignment != std::string::npos) {
        if (trim(line.substr(0, assignment)) == key) return trim(line.substr(assignment + 1));
      }
    }
  }
  return "";
}

}  // namespace

TEST(IniFileModel, EverythingWrittenReadsBackAndNothingElseChanges) {
  const Texts sections{"A", "B b", " C ", "[d", "Longer section name"};
  const Texts keys{"k", "key", "Key", "two words", "k.1", "\xFF%s"};
  const FixtureRoot root;
  const std::string file = root.HostPath("/model.ini");
  for (unsigned int seed = 0; seed < 40; ++seed) {
    Random random(seed);
    root.WriteFile("/model.ini",
                   "; first line\nearly=1\n\n[A]\n; about k\nk=1\n\n;two\nkey = 2 ; two\nno assignment\n"
                   "\n\n; about B\n[B b]\n[ C ]\n\nk.1=\xFE\n;last line" +
                       std::string(seed % 2, '\n'));
    Model model({{"A", {{"k", "1"}, {"key", "2"}}}, {"B b", {}}, {" C ", {{"k.1", "\xFE"}}}});
    CIniFile ini;
    ASSERT_TRUE(ini.Open(file.c_str(), true));
    for (int step = 0; step < 60; ++step) {
      const std::string section = random.OneOf(sections);
      const std::string key = random.OneOf(keys);
      const size_t action = random.Below(10);
      if (action == 0) {
        ASSERT_EQ(ini.DeleteSection(section.c_str()), model.Delete(section, nullptr));
      } else if (action < 3) {
        ASSERT_EQ(ini.DeleteKey(section.c_str(), key.c_str()), model.Delete(section, &key));
      } else {
        std::string value(1 + random.Below(step == 30 ? 1000 : 30), static_cast<char>('!' + random.Below(26)));
        value.insert(random.Below(value.size()), "=[] #\x80");
        ASSERT_TRUE(ini.SetString(section.c_str(), key.c_str(), ("v" + value + "v").c_str()));
        model.Set(section, key, "v" + value + "v");
      }
      ASSERT_NO_FATAL_FAILURE(model.ExpectIn(ini)) << "seed " << seed << ", step " << step;
    }
  }
}

TEST(IniFileModel, LookUpsAgreeOnArbitraryText) {
  const Texts scraps{"[A]",
                     "[B]",
                     "[ A]",
                     "k",
                     "ke",
                     "key",
                     "key=",
                     "=",
                     " ",
                     "\t",
                     "\n",
                     "\n",
                     "\n",
                     "\r",
                     ";",
                     "v",
                     "1",
                     "[",
                     "]",
                     "\n[A]\n",
                     "\nkey=value\n",
                     std::string(300, 'x'),
                     std::string(1000, 'y')};
  const FixtureRoot root;
  const std::string file = root.HostPath("/random.ini");
  Random random(7);
  for (int run = 0; run < 600; ++run) {
    std::string content;
    // Some of them longer than what is read at once.
    for (size_t count = random.Below(run % 20 == 0 ? 4000 : 60); count > 0; --count) {
      content += random.OneOf(scraps);
    }
    root.Remove("/random.ini");  // a new file costs less than one that is cut and filled again
    root.WriteFile("/random.ini", content);
    for (const char* section : {"A", "B", " A"}) {
      for (const char* key : {"", "k", "key", "1", "xxx"}) {
        char value[2048];
        CIniFile::GetPrivateProfileString(section, key, "", value, sizeof value, file.c_str());
        ASSERT_EQ(value, LookUp(content, section, key)) << "run " << run << ", " << section << "." << key;
      }
    }
  }
}
