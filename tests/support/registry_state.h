#pragma once

#include <functional>
#include <optional>
#include <string>

#include "registry/registry.h"

// Trees whose values all hold the number of one state, so that a lost, a torn and a mixed file are told apart. For the
// body of FixtureRoot::Run, which sees the real paths.

inline constexpr const char* kRegistry = "/etc/pelrix/registry";
inline constexpr const char* kOld = "/etc/pelrix/registry.old";
inline constexpr const char* kNew = "/etc/pelrix/registry.new";
inline constexpr const char* kDefault = "/etc/pelrix/registry.default";

// How many values below HKEY_LOCAL_MACHINE, and how many characters behind the number of each.
struct StateTree {
  int values;
  size_t padding;
};
inline constexpr StateTree kSmallTree = {20, 3};

// The file of a state.
std::string StateText(unsigned int state, const StateTree& tree = kSmallTree);
// Sets the values of a state.
void SetState(CRegistry& registry, unsigned int state, const StateTree& tree = kSmallTree);
// The state in a file; nothing when it does not load, or is none or a mixture. The tree may depend on the state.
std::optional<unsigned int> StateOf(const char* path, const std::function<StateTree(unsigned int)>& treeOf);
std::optional<unsigned int> StateOf(const char* path, const StateTree& tree = kSmallTree);
// What the next process would load.
std::optional<unsigned int> LoadedState(const StateTree& tree = kSmallTree);
