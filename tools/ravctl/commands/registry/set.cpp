// registry set: one value.

#include "ravctl/commands/registry/group.h"
#include "ravctl/registry/live_store.h"
#include "ravctl/registry/store_files.h"

namespace ravctl {

namespace {

struct Options {
  std::string key;
  std::string name;
  std::string value;
  std::string type;
  WriteOptions write;
};

// The type that was given, else that of the value so far, else string.
uint32_t ChosenType(const Options& options, const StoreKey* key) {
  if (!options.type.empty()) return *ParseType(options.type);
  if (key == nullptr) return kRegistryString;
  const auto old = key->values.find(options.name);
  return old != key->values.end() ? old->second.type : static_cast<uint32_t>(kRegistryString);
}

StoreKey WithValue(const Options& options, const StorePath& path, const StoreKey& root) {
  const StoreKey* key = FindStoreKey(root, path);
  const uint32_t type = ChosenType(options, key);
  const std::optional<StoreValue> value = ParseValue(type, options.value);
  if (!value) {
    throw CommandError(ExitCode::kUsage, "it is no value of type " + std::string(TypeText(type)), options.value,
                       type == kRegistryNumber ? "give a number from -2147483648 to 4294967295, or 0x..."
                                               : "give two hexadecimal digits a byte");
  }
  if (key != nullptr && key->keys.contains(options.name)) {
    throw CommandError(ExitCode::kUsage, "a key has that name", PathText(path) + ": " + options.name,
                       "delete the key first");
  }
  for (StorePath above; above.size() < path.size();) {
    const StoreKey* parent = FindStoreKey(root, above);
    above.push_back(path[above.size()]);
    if (parent != nullptr && parent->values.contains(above.back())) {
      throw CommandError(ExitCode::kUsage, "a value stands where a key is wanted", PathText(above),
                         "delete the value first");
    }
  }
  StoreKey target = root;
  MakeStoreKey(target, path).values[options.name] = *value;
  return target;
}

ExitCode Run(const Options& options, Output& out) {
  const StorePath path = ParseStorePath(options.key);
  return RunEdit(
      kRegistrySet, [&](const StoreKey& root) { return WithValue(options, path, root); }, options.write, out);
}

}  // namespace

void AddRegistrySet(Command& registry) {
  auto options = std::make_shared<Options>();
  Command& set =
      registry.Add({"set",
                    "Set a value; keys that are missing are made, and what is so already is not written",
                    {{"ravctl registry set 'HKEY_LOCAL_MACHINE\\SOFTWARE\\Agent' Port 3172 --type number", "a number"},
                     {"ravctl registry set HKEY_LOCAL_MACHINE/SOFTWARE/Agent Key '0a ff' --type binary", "two bytes"},
                     {"ravctl registry set HKEY_LOCAL_MACHINE/SOFTWARE/Agent Path /opt/x --dry-run", "show it only"}},
                    Effect::kChanges},
                   [options](Output& out) { return Run(*options, out); });
  set.Answers({&kRegistrySet});
  set.AddRequired("KEY", &options->key, "Path of the key from a root key on; \\ is the root").offered = kKeyOffers;
  set.AddRequired("NAME", &options->name, "Name of the value");
  set.AddRequired("VALUE", &options->value,
                  "Text, number or bytes as two hexadecimal digits each; behind -- it may start "
                  "with a dash");
  AddTypeOption(set, options->type, "string, expand, number or binary; the usual is what the value is, else string");
  AddWriteOptions(set, options->write);
}

}  // namespace ravctl
