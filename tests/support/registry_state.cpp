#include "support/registry_state.h"

#include <algorithm>

namespace {

std::string ValueName(int value) {
  return "Value" + std::to_string(1000 + value);  // in the order of their names
}

std::string ValueText(unsigned int state, const StateTree& tree) {
  return std::to_string(state) + std::string(tree.padding, '.');
}

}  // namespace

std::string StateText(unsigned int state, const StateTree& tree) {
  std::string text = "[HKEY_LOCAL_MACHINE]\n";
  for (int value = 0; value < tree.values; ++value)
    text += ValueName(value) + "=s=" + ValueText(state, tree) + "\n";
  return text + "\n\n";
}

void SetState(CRegistry& registry, unsigned int state, const StateTree& tree) {
  registry.Open("", nullptr);
  registry.CreateKey(nullptr, "HKEY_LOCAL_MACHINE");
  for (int value = 0; value < tree.values; ++value)
    registry.SetValue(ValueName(value).c_str(), ValueText(state, tree).c_str());
}

std::optional<unsigned int> StateOf(const char* path, const std::function<StateTree(unsigned int)>& treeOf) {
  CRegistryNode node;
  if (!CRegistry::ReadTree(path, node)) return std::nullopt;
  const CRegistryNodeRef key = node.FindSubKey("HKEY_LOCAL_MACHINE");
  if (!key) return std::nullopt;
  const CCriticalSectionLock lock(*key.Get());
  const std::span<const RegistryEntry> entries = key->Entries();
  const auto state = static_cast<unsigned int>(std::stoul(std::string(entries.front().Text())));
  const StateTree tree = treeOf(state);
  const std::string text = ValueText(state, tree);
  const bool isWhole = std::ranges::all_of(entries, [&](const RegistryEntry& entry) { return entry.Text() == text; });
  return isWhole && entries.size() == static_cast<size_t>(tree.values) ? std::optional(state) : std::nullopt;
}

std::optional<unsigned int> StateOf(const char* path, const StateTree& tree) {
  return StateOf(path, [&tree](unsigned int) { return tree; });
}

std::optional<unsigned int> LoadedState(const StateTree& tree) {
  const std::optional<unsigned int> state = StateOf(kRegistry, tree);
  return state ? state : StateOf(kOld, tree);
}
