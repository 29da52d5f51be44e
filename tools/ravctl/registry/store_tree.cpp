#include "ravctl/registry/store_tree.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <limits>

#include "ravctl/answer/error.h"
#include "ravctl/base/text.h"
#include "registry/registry_strings.h"
#include "registry/registry_text.h"

namespace ravctl {

namespace {

struct TypeRow {
  uint32_t type;
  const char* text;
};

constexpr auto kTypes = std::to_array<TypeRow>({
    {kRegistryString, "string"},
    {kRegistryExpandString, "expand"},
    {kRegistryNumber, "number"},
    {kRegistryBinary, "binary"},
});

std::optional<StoreValue> CopyOfEntry(const RegistryEntry& entry) {
  StoreValue value{.type = entry.type, .data = {}, .number = 0};
  if (!entry.HoldsValue()) return std::nullopt;
  if (entry.type == kRegistryNumber) {
    value.number = entry.Number();
  } else if (entry.IsText()) {
    value.data = entry.Text();
  } else if (entry.type == kRegistryBinary) {
    const std::span<const unsigned char> bytes = entry.Block();
    value.data.assign(bytes.begin(), bytes.end());
  } else {
    return std::nullopt;
  }
  return value;
}

struct SubKey {
  std::string name;
  CRegistryNodeRef node;
};

void CopyNode(CRegistryNode& node, StoreKey& key, size_t depth) {
  if (depth > kMaxStoreDepth) {
    throw CommandError(ExitCode::kInputDamaged, "the registry nests its keys too deep",
                       "more than " + std::to_string(kMaxStoreDepth) + " levels",
                       "look for a line like [name] too many");
  }
  std::vector<SubKey> below;
  {
    const CCriticalSectionLock lock(node);
    for (const RegistryEntry& entry : node.Entries()) {
      std::string name(entry.Name());
      if (entry.IsSubKey()) {
        if (entry.Node() != nullptr) below.push_back({std::move(name), CRegistryNodeRef(entry.Node())});
      } else if (std::optional<StoreValue> value = CopyOfEntry(entry)) {
        key.values.emplace(std::move(name), std::move(*value));
      }
    }
  }
  for (SubKey& child : below)
    CopyNode(*child.node.Get(), key.keys[child.name], depth + 1);
}

std::optional<uint32_t> ParseNumber(std::string_view text) {
  const bool isNegative = text.starts_with('-');
  if (isNegative) text.remove_prefix(1);
  const bool isHex = text.starts_with("0x") || text.starts_with("0X");
  if (isHex) text.remove_prefix(2);
  uint64_t number = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), number, isHex ? 16 : 10);
  if (text.empty() || result.ec != std::errc() || result.ptr != text.data() + text.size()) return std::nullopt;
  const uint64_t limit = isNegative ? uint64_t{1} << 31U : std::numeric_limits<uint32_t>::max();
  if (number > limit) return std::nullopt;
  return static_cast<uint32_t>(isNegative ? 0 - number : number);
}

std::optional<std::string> ParseBytes(std::string_view text) {
  std::string digits, bytes;
  std::ranges::copy_if(text, std::back_inserter(digits), [](char c) { return c != ' '; });
  for (size_t at = 0; at < digits.size(); at += 2) {
    unsigned int byte = 0;
    const char* end = digits.data() + std::min(at + 2, digits.size());
    const auto result = std::from_chars(digits.data() + at, end, byte, 16);
    if (result.ec != std::errc() || result.ptr != digits.data() + at + 2) return std::nullopt;
    bytes += static_cast<char>(byte);
  }
  return bytes;
}

// A subkey's name with a backslash cannot be reached through a path.
std::string WhyNotNamed(const std::string& name, bool isKey) {
  if (name.find('\0') != std::string::npos) return "a name with a zero byte";
  if (name.find('\n') != std::string::npos) return "a name with a newline";
  if (isKey && name.empty()) return "a key without a name";
  if (isKey && name.find('\\') != std::string::npos) return "a key's name with a backslash";
  if (isKey && name.find(']') != std::string::npos) return "a key's name with a closing bracket";
  if (!isKey && name.find('=') != std::string::npos) return "a value's name with an equals sign";
  return "";
}

class Comparison {
 public:
  std::vector<StoreChange> Run(const StoreKey& before, const StoreKey& after) {
    Keys(before, after);
    return std::move(m_Changes);
  }

 private:
  using Kind = StoreChange::Kind;

  void Keys(const StoreKey& before, const StoreKey& after) {
    for (const auto& [name, value] : before.values) {
      const auto other = after.values.find(name);
      if (other == after.values.end()) Add(Kind::kRemoved, name, value, std::nullopt);
    }
    for (const auto& [name, value] : after.values) {
      const auto other = before.values.find(name);
      if (other == before.values.end()) {
        Add(Kind::kAdded, name, std::nullopt, value);
      } else if (other->second != value) {
        Add(Kind::kChanged, name, other->second, value);
      }
    }
    for (const auto& [name, key] : before.keys)
      if (!after.keys.contains(name)) Whole(Kind::kRemoved, name, key, kNothing);
    for (const auto& [name, key] : after.keys) {
      const auto other = before.keys.find(name);
      if (other == before.keys.end()) {
        Whole(Kind::kAdded, name, kNothing, key);
      } else {
        m_Path.push_back(name);
        Keys(other->second, key);
        m_Path.pop_back();
      }
    }
  }

  void Whole(Kind kind, const std::string& name, const StoreKey& before, const StoreKey& after) {
    m_Path.push_back(name);
    m_Changes.push_back({kind, m_Path, std::nullopt, std::nullopt, std::nullopt});
    Keys(before, after);
    m_Path.pop_back();
  }

  void Add(Kind kind, const std::string& name, std::optional<StoreValue> before, std::optional<StoreValue> after) {
    m_Changes.push_back({kind, m_Path, name, std::move(before), std::move(after)});
  }

  static inline const StoreKey kNothing;

  StorePath m_Path;
  std::vector<StoreChange> m_Changes;
};

}  // namespace

StoreKey CopyOfNode(CRegistryNode& node) {
  StoreKey key;
  CopyNode(node, key, 0);
  return key;
}

CRegistryValue ToLibraryValue(const StoreValue& value) {
  if (value.type == kRegistryNumber) return CRegistryValue::Number(value.number);
  if (value.type != kRegistryBinary) return CRegistryValue::Text(value.data, value.type);
  return CRegistryValue::Block({reinterpret_cast<const unsigned char*>(value.data.data()), value.data.size()});
}

StorePath ParseStorePath(std::string_view text) {
  StorePath path;
  if (text == "\\" || text == "/") return path;
  for (std::string_view rest = text; !rest.empty();) {
    path.emplace_back(TakePathComponent(rest));
    if (path.back().empty()) {
      throw CommandError(ExitCode::kUsage, "a key of the path has no name", text,
                         "separate the names by one backslash");
    }
  }
  return path;
}

std::string PathText(const StorePath& path) {
  std::string text;
  for (const std::string& name : path)
    text += (text.empty() ? "" : "\\") + name;
  return path.empty() ? "\\" : text;
}

const StoreKey* FindStoreKey(const StoreKey& root, const StorePath& path) {
  const StoreKey* key = &root;
  for (const std::string& name : path) {
    const auto found = key->keys.find(name);
    if (found == key->keys.end()) return nullptr;
    key = &found->second;
  }
  return key;
}

StoreKey& MakeStoreKey(StoreKey& root, const StorePath& path) {
  StoreKey* key = &root;
  for (const std::string& name : path) {
    key->values.erase(name);
    key = &key->keys[name];
  }
  return *key;
}

const char* TypeText(uint32_t type) {
  const auto* row = std::ranges::find(kTypes, type, &TypeRow::type);
  return row != kTypes.end() ? row->text : "unknown";
}

std::optional<uint32_t> ParseType(std::string_view text) {
  const auto* row = std::ranges::find(kTypes, text, &TypeRow::text);
  return row != kTypes.end() ? std::optional(row->type) : std::nullopt;
}

std::string ValueText(const StoreValue& value) {
  if (value.type == kRegistryNumber) return std::to_string(value.number);
  if (value.type != kRegistryBinary) return value.data;
  return HexBytes(value.data, " ");
}

std::optional<StoreValue> ParseValue(uint32_t type, std::string_view text) {
  StoreValue value{.type = type, .data = {}, .number = 0};
  if (type == kRegistryNumber) {
    const std::optional<uint32_t> number = ParseNumber(text);
    if (!number) return std::nullopt;
    value.number = *number;
  } else if (type == kRegistryBinary) {
    std::optional<std::string> bytes = ParseBytes(text);
    if (!bytes) return std::nullopt;
    value.data = std::move(*bytes);
  } else {
    value.data = text;
  }
  return value;
}

// Of the whole entry, its newline included, however much of it the library would write.
static size_t LineSize(const std::string& name, const StoreValue* value) {
  constexpr size_t kAroundKey = 3;    // "[]\n"
  constexpr size_t kAroundValue = 4;  // "=s=\n"
  if (value == nullptr) return name.size() + kAroundKey;
  if (value->type == kRegistryNumber)
    return name.size() + kAroundValue + std::to_string(static_cast<int32_t>(value->number)).size();
  if (value->type == kRegistryBinary) return name.size() + kAroundValue + 3 * value->data.size();
  return name.size() + kAroundValue + (value->type == kRegistryExpandString ? 1 : 0) + value->data.size();
}

std::string WhyNotKept(const std::string& name, const StoreValue* value) {
  std::string why = WhyNotNamed(name, value == nullptr);
  if (!why.empty()) return why;
  if (value != nullptr && value->type != kRegistryBinary) {
    if (value->data.find('\n') != std::string::npos) return "a text with a newline";
    if (value->data.find('\0') != std::string::npos) return "a text with a zero byte";
  }
  CRegistryValue held = value != nullptr ? ToLibraryValue(*value) : CRegistryValue::SubKey(new CRegistryNode);
  std::string copy = name;
  const RegistryEntry entry = RegistryEntry::Of(copy.data(), copy.size(), held.Word(), held.Type());
  RegistryText text;
  if (AppendRegistryLine(entry, text) == RegistryFit::kWhole) return "";
  if (const size_t size = LineSize(name, value); size > kRegistryLineLimit)
    return "a line of " + std::to_string(size) + " bytes, where " + std::to_string(kRegistryLineLimit) + " fit";
  return "a line that reads as something else";
}

std::vector<StoreChange> CompareStores(const StoreKey& before, const StoreKey& after) {
  return Comparison().Run(before, after);
}

const char* ChangeText(StoreChange::Kind kind) {
  switch (kind) {
    case StoreChange::Kind::kAdded:
      return "added";
    case StoreChange::Kind::kRemoved:
      return "removed";
    default:
      return "changed";
  }
}

void MergeStores(StoreKey& into, const StoreKey& from) {
  for (const auto& [name, value] : from.values) {
    into.keys.erase(name);
    into.values[name] = value;
  }
  for (const auto& [name, key] : from.keys) {
    into.values.erase(name);
    MergeStores(into.keys[name], key);
  }
}

}  // namespace ravctl
