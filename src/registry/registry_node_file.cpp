// Writing and reading the content of a node as text.

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "registry/registry_node.h"
#include "registry/registry_text.h"
#include "trace/debug.h"

namespace {

constexpr size_t kBlockSize = 256 * 1024;  // bytes of text that are gathered before they are written
constexpr size_t kMaxTracedPath = 512;     // characters

// One walk over a tree in the order of its file. Each level remembers how far its key was written; when the key
// changed meanwhile, it goes on behind the name of the subkey that was written last.
class Dump {
 public:
  explicit Dump(FILE* file) : m_File(file) {}

  void Run(CRegistryNode& top) {
    for (Enter(CRegistryNodeRef(&top)); !m_Levels.empty();) {
      CRegistryNodeRef child = NextSubKey(m_Levels.back());
      if (child) {
        Enter(std::move(child));
      } else {
        m_Text.push_back('\n');
        m_Levels.pop_back();
      }
      if (m_Text.size() >= kBlockSize) Write();
    }
    Write();
  }

 private:
  struct Level {
    CRegistryNodeRef node;
    size_t position = 0;  // of the entry to look at next, as long as the version is the same
    uint64_t version = 0;
    std::string subKey;  // the one that is being written
  };

  void Enter(CRegistryNodeRef node) {
    Level& level = m_Levels.emplace_back();
    level.node = std::move(node);
    AppendValues(level);
  }

  void AppendValues(Level& level) {
    const CCriticalSectionLock lock(*level.node.Get());
    const std::span<const RegistryEntry> entries = level.node->Entries();
    level.version = level.node->Version();
    level.position = entries.size();
    for (size_t position = entries.size(); position-- > 0;)
      if (entries[position].IsSubKey()) level.position = position;
    for (const RegistryEntry& entry : entries)
      if (!entry.IsSubKey()) AppendEntry(entry);
  }

  CRegistryNodeRef NextSubKey(Level& level) {
    CRegistryNode& node = *level.node.Get();
    const CCriticalSectionLock lock(node);
    if (level.version != node.Version()) level.position = node.PositionBehind(level.subKey);
    const std::span<const RegistryEntry> entries = node.Entries();
    level.version = node.Version();
    while (level.position < entries.size()) {
      const RegistryEntry& entry = entries[level.position++];
      if (!entry.IsSubKey() || !AppendEntry(entry)) continue;
      level.subKey = entry.name;
      return CRegistryNodeRef(entry.Node());
    }
    return {};
  }

  bool AppendEntry(const RegistryEntry& entry) {
    const size_t start = m_Text.size();
    if (!AppendRegistryLine(entry, m_Text)) return false;
    const std::string_view line = std::string_view(m_Text).substr(start);
    const RegistryFate fate = FateOfRegistryLine(entry, line);
    if (fate == RegistryFate::kCarried) return true;
    TRACE(1, "CRegistry: ERROR: \"%s\" of key \"%s\" does not fit into the registry file and will be lost\n",
          entry.name, PathOfKey().c_str());
    if (fate == RegistryFate::kHarmful) m_Text.resize(start);
    return fate != RegistryFate::kHarmful;
  }

  // From the root; of a very long path the end.
  std::string PathOfKey() const {
    std::string path;
    for (size_t level = m_Levels.size() - 1; level > 0 && path.size() < kMaxTracedPath; --level)
      path.insert(0, (level > 1 ? "\\" : "") + m_Levels[level - 1].subKey);
    return path;
  }

  void Write() {
    std::fwrite(m_Text.data(), 1, m_Text.size(), m_File);
    m_Text.clear();
  }

  FILE* m_File;
  std::string m_Text;
  std::vector<Level> m_Levels;
};

// Reads one line, or the next piece of an over-long one, and takes the newline off. A line ends at a zero byte, too.
bool ReadLine(FILE* file, std::span<char> buffer, std::string_view& line) {
  if (std::fgets(buffer.data(), static_cast<int>(buffer.size()), file) == nullptr) return false;
  size_t length = std::strlen(buffer.data());
  if (length > 0 && buffer[length - 1] == '\n') buffer[--length] = '\0';
  line = {buffer.data(), length};
  return true;
}

// The keys that are open while a file is read. A key enters its parent when its content has ended.
class Restore {
 public:
  explicit Restore(CRegistryNode& top) : m_Top(top) {}

  bool Run(FILE* file) {
    char buffer[kRegistryLineLimit + 1];
    std::string_view line;
    while (ReadLine(file, buffer, line)) {
      if (!line.empty()) {
        Take(line);
      } else if (!CloseKey()) {
        return m_IsTaken;
      }
    }
    while (CloseKey()) {
    }
    return m_IsTaken;
  }

 private:
  struct Key {
    std::string name;
    CRegistryValue value;
    CRegistryNode* node;  // borrowed from the value
  };

  void Take(std::string_view text) {
    const RegistryLine line = ParseRegistryLine(text);
    if (line.kind == RegistryLine::Kind::kSkipped) return;
    if (line.kind == RegistryLine::Kind::kSubKey) {
      OpenKey(line.name);
      return;
    }
    m_IsTaken = true;
    CRegistryValue value;
    if (MakeRegistryValue(line, value)) Current().Exchange(line.name, value);
  }

  CRegistryNode& Current() { return m_Open.empty() ? m_Top : *m_Open.back().node; }

  void OpenKey(std::string_view name) {
    auto* node = new CRegistryNode;
    CRegistryValue value = CRegistryValue::SubKey(node);
    m_Open.push_back({std::string(name), std::move(value), node});
  }

  bool CloseKey() {
    if (m_Open.empty()) return false;
    Key key = std::move(m_Open.back());
    m_Open.pop_back();
    Current().Exchange(key.name, key.value);
    return true;
  }

  CRegistryNode& m_Top;
  std::vector<Key> m_Open;
  bool m_IsTaken = false;
};

}  // namespace

void CRegistryNode::dumpNode(FILE* file) {
  if (file != nullptr) Dump(file).Run(*this);
}

bool CRegistryNode::restoreNode(FILE* file) {
  return file != nullptr && Restore(*this).Run(file);
}
