#pragma once

#include <functional>
#include <string>
#include <vector>

#include "ravctl/registry/store_tree.h"

namespace ravctl {

// What is looked for in a registry. A word with * ? or [ is a pattern for the whole text, any other is looked for
// within it.
struct StoreQuery {
  std::vector<std::string> patterns;     // one is enough
  std::vector<std::string> notPatterns;  // none may match
  std::vector<std::string> places;       // "key", "name", "value": what is looked at; empty: all
  std::string type;                      // values of that type alone
  bool ignoresCase = false;
  bool isInverted = false;  // of what is looked at, that which does not match
};

// Told of each hit in order: a value with its key, or a key.
struct StoreHits {
  std::function<void(const StorePath& key, const std::string& name, const StoreValue& value)> onValue;
  std::function<void(const StorePath& path, const StoreKey& key)> onKey;
};

// Searches the key and all below it; path is where it stands.
void SearchStore(const StoreQuery& query, const StorePath& path, const StoreKey& key, const StoreHits& hits);

}  // namespace ravctl
