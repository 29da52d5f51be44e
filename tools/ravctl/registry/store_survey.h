#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ravctl/registry/store_check.h"

namespace ravctl {

// One file of the registry, looked at closely.
struct StoreFileState {
  std::string path;
  int error = 0;  // of opening or reading it; ENOENT: it is not there
  uint64_t bytes = 0;
  int64_t modified = 0;  // seconds since 1970
  StoreCheck check;      // of what could be read
  bool isLoaded = false;
  std::string reason;  // why a start loads it, or does not

  bool Exists() const;
  bool IsWhole() const { return error == 0 && check.IsWhole(); }
};

StoreFileState LookAtStoreFile(const std::string& path);

// The four files, there or not, in the order in which a start looks at them (registry, registry.old,
// registry.default) and registry.new; then every other file of the directory whose name begins the same way.
std::vector<StoreFileState> SurveyStore();

// Which file a recovery takes: the registry itself when it is whole, else the first whole one of registry.new (whole
// means that its save was complete) and registry.old, else the damaged one of these three that has most values, else
// registry.default. Null when no file holds a value.
const StoreFileState* BestStoreFile(const std::vector<StoreFileState>& files);

}  // namespace ravctl
