#include "ravctl/registry/store_export.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>

#include "ravctl/answer/json.h"
#include "ravctl/base/error.h"
#include "ravctl/base/json_reader.h"
#include "ravctl/base/text.h"

namespace ravctl {

namespace {

constexpr Type kEncoding = Choice("text|hex");

constexpr auto kExportValueFields = std::to_array<Field>({
    {"name", kText, "name of the value"},
    {"type", Choice("string|expand|number|binary"), "its type"},
    {"value", kText, "its text, digits or bytes"},
    {"encoding", kEncoding, "how name and text are written; hex when they are no UTF-8"},
});

constexpr auto kExportKeyFields = std::to_array<Field>({
    {"path", kTexts, "the names from the root to the key"},
    {"encoding", kEncoding, "how they are written; hex when they are no UTF-8"},
    {"values", ListOf(kExportValueFields), "the values of the key"},
});

constexpr auto kExportFields = std::to_array<Field>({
    {"keys", ListOf(kExportKeyFields), "every key, in order"},
});

constexpr const char* kPlain = "text";
constexpr const char* kHex = "hex";
constexpr std::array<const char*, 5> kMembers = {"schema", "version", "root", "data", "warnings"};

bool IsUtf8(std::string_view text) {
  return ValidUtf8(text) == text;
}

std::string Hex(std::string_view bytes) {
  return ValueText({.type = kRegistryBinary, .data = std::string(bytes), .number = 0});
}

Json ValueObject(const std::string& name, const StoreValue& value) {
  const bool isPlain = IsUtf8(name) && (value.type == kRegistryBinary || IsUtf8(value.data));
  const std::string text = ValueText(value);
  return {{"name", isPlain ? name : Hex(name)},
          {"type", TypeText(value.type)},
          {"value", isPlain || value.type == kRegistryBinary || value.type == kRegistryNumber ? text : Hex(text)},
          {"encoding", isPlain ? kPlain : kHex}};
}

void AddKey(const StorePath& path, const StoreKey& key, Json& keys) {
  bool isPlain = true;
  for (const std::string& name : path)
    isPlain = isPlain && IsUtf8(name);
  Json names = Json::array();
  for (const std::string& name : path)
    names.push_back(isPlain ? name : Hex(name));
  Json values = Json::array();
  for (const auto& [name, value] : key.values)
    values.push_back(ValueObject(name, value));
  keys.push_back({{"path", std::move(names)}, {"encoding", isPlain ? kPlain : kHex}, {"values", std::move(values)}});
  for (const auto& [name, below] : key.keys) {
    StorePath longer = path;
    longer.push_back(name);
    AddKey(longer, below, keys);
  }
}

class Parser {
 public:
  explicit Parser(std::string path) : m_Path(std::move(path)) {}

  StoreKey Run(std::string_view bytes) {
    std::string why;
    const std::optional<Json> read = ReadJson(bytes, why);
    if (!read) Refuse(why);
    const Json& object = *read;
    if (Text(object, "schema") != "ravctl/" + std::string(kExportSchema.name)) Refuse("its schema is another one");
    if (!object.contains("version") || object["version"] != kExportSchema.version) Refuse("its version is another one");
    const Json* data = Member(object, "data", &Json::is_object);
    StoreKey root;
    for (const Json& key : *Member(*data, "keys", &Json::is_array)) {
      m_Where = "key " + std::to_string(m_Count++);
      AddKeyObject(key, root);
    }
    return root;
  }

 private:
  [[noreturn]] void Refuse(const std::string& why) const {
    throw CommandError(ExitCode::kInputDamaged, "the export cannot be used: " + why,
                       m_Path + (m_Where.empty() ? "" : ", " + m_Where), "export it again");
  }

  const Json* Member(const Json& object, const char* name, bool (Json::*isRight)() const) const {
    if (!object.is_object() || !object.contains(name) || !(object[name].*isRight)()) {
      Refuse(std::string("\"") + name + "\" is missing or of another type");
    }
    return &object[name];
  }

  std::string Text(const Json& object, const char* name) const {
    return Member(object, name, &Json::is_string)->get<std::string>();
  }

  std::string Decoded(const std::string& text, bool isHex) const {
    if (!isHex) return text;
    const std::optional<StoreValue> bytes = ParseValue(kRegistryBinary, text);
    if (!bytes) Refuse("no hexadecimal bytes: " + text);
    return bytes->data;
  }

  void AddKeyObject(const Json& object, StoreKey& root) {
    const bool isHex = Text(object, "encoding") == kHex;
    StorePath path;
    for (const Json& name : *Member(object, "path", &Json::is_array)) {
      if (!name.is_string()) Refuse("a name is no text");
      path.push_back(Decoded(name.get<std::string>(), isHex));
    }
    if (path.size() > kMaxStoreDepth) Refuse("it nests too deep");
    StoreKey& key = MakeStoreKey(root, path);
    for (const Json& value : *Member(object, "values", &Json::is_array))
      AddValueObject(value, key);
  }

  void AddValueObject(const Json& object, StoreKey& key) {
    const bool isHex = Text(object, "encoding") == kHex;
    const std::string name = Decoded(Text(object, "name"), isHex);
    const std::optional<uint32_t> type = ParseType(Text(object, "type"));
    if (!type) Refuse("no such type: " + Text(object, "type"));
    const bool isText = *type == kRegistryString || *type == kRegistryExpandString;
    const std::optional<StoreValue> value = ParseValue(*type, Decoded(Text(object, "value"), isHex && isText));
    if (!value) Refuse("no " + std::string(TypeText(*type)) + ": " + Text(object, "value"));
    if (key.keys.contains(name) || !key.values.emplace(name, *value).second) Refuse("a name stands twice: " + name);
  }

  std::string m_Path;
  std::string m_Where;
  size_t m_Count = 0;
};

struct FreeMemory {
  void operator()(char* text) const { std::free(text); }
};

}  // namespace

constexpr Schema kExportSchema = {"registry-export", 1, Record(kExportFields)};

Json ExportData(const StoreKey& root) {
  Json keys = Json::array();
  AddKey({}, root, keys);
  return {{"keys", std::move(keys)}};
}

std::string ExportText(const StoreKey& root) {
  const Json object = {{"schema", "ravctl/" + std::string(kExportSchema.name)},
                       {"version", kExportSchema.version},
                       {"root", "/"},
                       {"data", ExportData(root)},
                       {"warnings", Json::array()}};
  return object.dump(2) + "\n";
}

bool IsExport(std::string_view bytes) {
  constexpr std::string_view kBlanks = " \t\r\n";
  const auto skip = [&bytes](std::string_view characters) {
    bytes.remove_prefix(std::min(bytes.find_first_not_of(characters), bytes.size()));
  };
  skip(kBlanks);
  if (!bytes.starts_with('{')) return false;
  bytes.remove_prefix(1);
  skip(kBlanks);
  return std::ranges::any_of(kMembers,
                             [bytes](const char* name) { return bytes.starts_with('"' + std::string(name) + "\":"); });
}

StoreKey ParseExport(std::string_view bytes, const std::string& path) {
  return Parser(path).Run(bytes);
}

void FillNode(const StoreKey& key, CRegistryNode& node) {
  for (const auto& [name, value] : key.values) {
    CRegistryValue held = ToLibraryValue(value);
    node.Exchange(name, held);
  }
  for (const auto& [name, below] : key.keys) {
    CRegistryNodeRef child;
    node.FindOrCreateSubKey(name, child);
    FillNode(below, *child.Get());
  }
}

std::string StoreText(const StoreKey& root) {
  CRegistryNode node;
  FillNode(root, node);
  char* text = nullptr;
  size_t size = 0;
  std::FILE* file = ::open_memstream(&text, &size);
  if (file == nullptr) throw std::bad_alloc();
  node.dumpNode(file);
  const bool isWritten = std::fclose(file) == 0;
  const std::unique_ptr<char, FreeMemory> owned(text);
  if (!isWritten) throw std::bad_alloc();
  return {text, size};
}

StoreKey AsReadBack(const StoreKey& root) {
  std::string text = StoreText(root);
  std::FILE* file = ::fmemopen(text.data(), text.size(), "r");
  if (file == nullptr) throw std::bad_alloc();
  CRegistryNode node;
  node.restoreNode(file);
  std::fclose(file);
  return CopyOfNode(node);
}

}  // namespace ravctl
