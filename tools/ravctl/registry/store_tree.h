#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "registry/registry_node.h"

namespace ravctl {

// One value of a registry as the commands work on it.
struct StoreValue {
  uint32_t type = 0;    // kRegistryString, kRegistryExpandString, kRegistryBinary or kRegistryNumber
  std::string data;     // the text or the bytes; empty for a number
  uint32_t number = 0;  // of a number

  bool operator==(const StoreValue&) const = default;
};

// One key with all that is below it: a plain copy of a registry tree. Values and subkeys share one name space.
struct StoreKey {
  std::map<std::string, StoreValue> values;
  std::map<std::string, StoreKey> keys;

  bool operator==(const StoreKey&) const = default;
};

// The names from a root key on; empty for the root.
using StorePath = std::vector<std::string>;

// Deeper trees are refused, so that walking one may recurse.
inline constexpr size_t kMaxStoreDepth = 500;

// A copy of a node of the library. Throws CommandError for a tree deeper than kMaxStoreDepth.
StoreKey CopyOfNode(CRegistryNode& node);
CRegistryValue ToLibraryValue(const StoreValue& value);

// The components of a path as the library splits them. Throws CommandError (usage) for an empty one.
StorePath ParseStorePath(std::string_view text);
// "HKEY_USERS\Agent", "\" for the root.
std::string PathText(const StorePath& path);

const StoreKey* FindStoreKey(const StoreKey& root, const StorePath& path);
// The key is made when it is missing; a value that stands in its way is replaced.
StoreKey& MakeStoreKey(StoreKey& root, const StorePath& path);

// "string", "expand", "binary", "number"; ParseType gives nullopt for another word.
const char* TypeText(uint32_t type);
std::optional<uint32_t> ParseType(std::string_view text);
// As it is shown: the text, the unsigned decimal number, "0a ff 01".
std::string ValueText(const StoreValue& value);
// The value that ValueText shows so; numbers may be negative or hexadecimal (0x10) as well, the blanks between bytes
// may be missing. nullopt when the text is none of that type.
std::optional<StoreValue> ParseValue(uint32_t type, std::string_view text);

// Why the store cannot keep the value or the subkey (null value) under this name as it is; empty when it can.
std::string WhyNotKept(const std::string& name, const StoreValue* value);

// One difference between two trees: a value, or without a name a whole key that came or went.
struct StoreChange {
  enum class Kind { kAdded, kRemoved, kChanged };

  Kind kind = Kind::kChanged;
  StorePath key;
  std::optional<std::string> name;  // none: the key itself
  std::optional<StoreValue> before;
  std::optional<StoreValue> after;
};

// What makes the second tree out of the first, key by key; of a key that came or went also each of its values.
std::vector<StoreChange> CompareStores(const StoreKey& before, const StoreKey& after);
const char* ChangeText(StoreChange::Kind kind);

// Everything of the second tree is taken into the first; what has the same name is replaced, keys are merged.
void MergeStores(StoreKey& into, const StoreKey& from);

}  // namespace ravctl
