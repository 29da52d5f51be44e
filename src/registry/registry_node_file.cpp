// Writing and reading the content of a node as text.

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "registry/registry_node.h"
#include "registry/registry_text.h"
#include "trace/debug.h"

namespace {

constexpr size_t kBlockSize = 1024 * 1024;  // bytes of text that are gathered before they are written
constexpr size_t kMaxTracedPath = 512;      // characters

// One walk over a tree in the order of its file. Each level remembers how far its key was written; when the key
// changed meanwhile, it goes on behind the name of the subkey that was written last.
class Dump {
 public:
  explicit Dump(FILE* file) : m_File(file) { m_Text.Reserve(kBlockSize + kBlockSize / 4); }

  void Run(CRegistryNode& top) {
    for (Enter(CRegistryNodeRef(&top)); !m_Levels.empty();) {
      CRegistryNodeRef child = NextSubKey(m_Levels.back());
      if (child) {
        Enter(std::move(child));
      } else {
        m_Text.Append('\n');
        m_Levels.pop_back();
      }
      if (m_Text.Size() >= kBlockSize) Write();
    }
    Write();
  }

 private:
  struct Level {
    CRegistryNodeRef node;
    size_t position = 0;  // of the entry to look at next, as long as the version is the same
    uint64_t version = 0;
    std::string subKey;        // the one that is being written,
    bool isInSubKeys = false;  // if any is
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
    if (level.version != node.Version()) level.position = level.isInSubKeys ? node.PositionBehind(level.subKey) : 0;
    const std::span<const RegistryEntry> entries = node.Entries();
    level.version = node.Version();
    while (level.position < entries.size()) {
      const RegistryEntry& entry = entries[level.position++];
      if (!entry.IsSubKey() || !entry.HoldsValue() || !AppendEntry(entry)) continue;
      level.subKey = entry.Name();
      level.isInSubKeys = true;
      return CRegistryNodeRef(entry.Node());
    }
    return {};
  }

  bool AppendEntry(const RegistryEntry& entry) {
    const RegistryFit fit = AppendRegistryLine(entry, m_Text);
    if (fit == RegistryFit::kCut) {
      TRACE(1, "CRegistry: ERROR: \"%s\" of key \"%s\" does not fit into the registry file and will be cut\n",
            entry.name, PathOfKey().c_str());
    } else if (fit == RegistryFit::kLost) {
      TRACE(1, "CRegistry: ERROR: \"%s\" of key \"%s\" does not fit into the registry file and will be lost\n",
            entry.name, PathOfKey().c_str());
    }
    return fit != RegistryFit::kLost;
  }

  // From the root; of a very long path the end.
  std::string PathOfKey() const {
    std::string path;
    for (size_t level = m_Levels.size() - 1; level > 0 && path.size() < kMaxTracedPath; --level)
      path.insert(0, (level > 1 ? "\\" : "") + m_Levels[level - 1].subKey);
    return path;
  }

  void Write() {
    std::fwrite(m_Text.From(0).data(), 1, m_Text.Size(), m_File);
    m_Text.Cut(0);
  }

  FILE* m_File;
  RegistryText m_Text;
  std::vector<Level> m_Levels;
};

// The lines of a stream, read in blocks.
class BoundedLines {
 public:
  explicit BoundedLines(FILE* file) : m_File(file), m_Buffer(std::make_unique_for_overwrite<char[]>(kReadSize + 1)) {}

  // The next line without its newline, or the next piece of an over-long one. A line ends at a zero byte, too; a zero
  // byte follows it. Valid until the next call. False at the end or on a read error.
  bool Next(std::string_view& line) {
    if (m_IsPiece) m_Buffer[m_Begin] = m_Replaced;
    size_t length = FindEnd();
    if (length == kNone && Refill()) length = FindEnd();
    m_IsPiece = length == kNone;
    if (m_IsPiece) length = std::min(m_End - m_Begin, kRegistryLineLimit);
    if (m_IsPiece && length == 0) return false;

    char* text = m_Buffer.get() + m_Begin;
    m_Replaced = std::exchange(text[length], '\0');
    m_Begin += length + (m_IsPiece ? 0 : 1);
    line = {text, m_HasZeros ? std::strlen(text) : length};
    return true;
  }

  // Of the read that failed, after which nothing more is read; 0 when none did.
  int Error() const { return m_Error; }

 private:
  static constexpr size_t kReadSize = 64 * 1024;
  static constexpr size_t kNone = std::string_view::npos;

  size_t FindEnd() const {
    const std::string_view rest(m_Buffer.get() + m_Begin, m_End - m_Begin);
    return rest.substr(0, kRegistryLineLimit).find('\n');
  }

  // False when there was enough already.
  bool Refill() {
    if (m_End - m_Begin >= kRegistryLineLimit) return false;
    std::memmove(m_Buffer.get(), m_Buffer.get() + m_Begin, m_End - m_Begin);
    m_End -= std::exchange(m_Begin, 0);
    char* fresh = m_Buffer.get() + m_End;
    const size_t count = m_Error == 0 ? std::fread(fresh, 1, kReadSize - m_End, m_File) : 0;
    if (m_Error == 0 && std::ferror(m_File) != 0) m_Error = errno;
    m_HasZeros = m_HasZeros || std::memchr(fresh, '\0', count) != nullptr;
    m_End += count;
    return true;
  }

  FILE* m_File;
  std::unique_ptr<char[]> m_Buffer;
  size_t m_Begin = 0;
  size_t m_End = 0;
  bool m_HasZeros = false;
  int m_Error = 0;
  bool m_IsPiece = false;  // the last line ended without a newline,
  char m_Replaced = '\0';  // and this stood where its zero byte is
};

// The keys that are open while a file is read. A key enters its parent when its content has ended.
class Restore {
 public:
  explicit Restore(CRegistryNode& top) : m_Top(top) {}

  bool Run(FILE* file) {
    BoundedLines lines(file);
    std::string_view line;
    while (lines.Next(line)) {
      if (!line.empty()) {
        Take(line);
      } else if (!CloseKey()) {
        return m_IsTaken;
      }
    }
    while (CloseKey()) {
    }
    if (lines.Error() != 0) errno = lines.Error();
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
    if (MakeRegistryValue(line, value)) Store(line.name, value);
  }

  // Nobody else knows a key that is open.
  void Store(std::string_view name, CRegistryValue& value) {
    if (m_Open.empty()) {
      m_Top.Exchange(name, value);
    } else {
      m_Open.back().node->Store(name, value);
    }
  }

  void OpenKey(std::string_view name) {
    auto* node = new CRegistryNode;
    CRegistryValue value = CRegistryValue::SubKey(node);
    m_Open.push_back({std::string(name), std::move(value), node});
  }

  bool CloseKey() {
    if (m_Open.empty()) return false;
    Key key = std::move(m_Open.back());
    m_Open.pop_back();
    Store(key.name, key.value);
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
