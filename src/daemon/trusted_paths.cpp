#include "daemon/trusted_paths.h"

#include <dlfcn.h>
#include <link.h>

#include <filesystem>
#include <string>

#include "daemon/daemon_name.h"
#include "daemon/switch_api.h"
#include "platform/regular_file.h"
#include "trace/debug.h"

namespace {

constexpr const char* kConfigurationDirectories[] = {"/etc/norrow/QuennetSuite/TraceConfig", "/etc/pelrix"};

void Warn(const std::string& path) {
  if (path.empty() || !IsWritableForOthers(path.c_str())) return;
  Debug.PrintAlways(0, "%s-MAIN: WARNING: %s is writable for others than root\n", kDaemonName, path.c_str());
}

std::string PathOf(void* library) {
  const link_map* map = nullptr;
  return ::dlinfo(library, RTLD_DI_LINKMAP, &map) == 0 ? map->l_name : "";
}

}  // namespace

void WarnOfWritablePaths(const CSwitchApi& switchApi) {
  for (const char* directory : kConfigurationDirectories)
    Warn(directory);
  Warn(Debug.Directory());
  const std::string library = PathOf(switchApi.library);
  Warn(std::filesystem::path(library).parent_path());
  Warn(library);
}
