#pragma once

#include <array>
#include <string>

#include "ravctl/answer/output.h"
#include "ravctl/registry/store_tree.h"

namespace ravctl {

// Where the registry lives.
inline constexpr const char* kStoreDirectory = "/etc/pelrix";
inline constexpr const char* kStoreFile = "/etc/pelrix/registry";
inline constexpr const char* kStoreOld = "/etc/pelrix/registry.old";
inline constexpr const char* kStoreNew = "/etc/pelrix/registry.new";
inline constexpr const char* kStoreDefault = "/etc/pelrix/registry.default";
inline constexpr const char* kStoreLock = "/etc/pelrix/.registry.lock";

// What a start tries, one after the other.
inline constexpr std::array<const char*, 3> kStartOrder = {kStoreFile, kStoreOld, kStoreDefault};

// Reads the first file that can be used, as a start does: what a refused file left in the node stays. Its path, or ""
// when there is none.
std::string LoadFirst(CRegistryNode& node);

// The tree that a process starting now would have, and the file that it comes from.
struct LoadedStore {
  StoreKey root;
  std::string file;
};

// Throws CommandError when no file can be used. A file other than the registry itself is warned of.
LoadedStore LoadStore(Output& out);

// The tree of one file: the text form of the store, or what `registry export` wrote. Throws CommandError.
StoreKey ReadStoreFile(const std::string& path);
// The same, LoadStore for the word "live", and for a captured tree or a bundle LoadStore in there.
StoreKey ReadStoreOrLive(const std::string& what, Output& out);

}  // namespace ravctl
