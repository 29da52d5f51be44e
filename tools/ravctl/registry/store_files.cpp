#include "ravctl/registry/store_files.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>

#include "platform/descriptor_io.h"
#include "platform/regular_file.h"
#include "ravctl/base/error.h"
#include "ravctl/base/files.h"
#include "ravctl/registry/store_export.h"
#include "ravctl/tree/tree_reading.h"
#include "registry/registry.h"

namespace ravctl {

namespace {

constexpr const char* kRecover = "see ravctl registry verify and recover";

// 0 when the file can be opened.
int OpenError(const char* path) {
  return OpenRegularFile(path, O_RDONLY) ? 0 : errno;
}

[[noreturn]] void ThrowNothingLoaded() {
  int missing = 0;
  for (const char* path : kStartOrder) {
    const int error = OpenError(path);
    if (error == ENOENT || error == ENOTDIR) {
      ++missing;
    } else if (error != 0) {
      throw SystemFailure("cannot read the registry", path, error);
    }
  }
  if (missing == static_cast<int>(kStartOrder.size())) throw SystemFailure("there is no registry", kStoreFile, ENOENT);
  throw CommandError(ExitCode::kInputDamaged, "no file of the registry holds a value", kStoreFile, kRecover);
}

void WarnAboutFallback(const char* used, Output& out) {
  const int error = OpenError(kStoreFile);
  if (error == EACCES || error == EPERM) throw SystemFailure("cannot read the registry", kStoreFile, error);
  out.Warn(error == ENOENT ? "there is no registry file, a start takes the next one"
                           : "the registry file cannot be used, a start takes the next one",
           used, kRecover);
}

}  // namespace

std::string LoadFirst(CRegistryNode& node) {
  const auto* path =
      std::ranges::find_if(kStartOrder, [&](const char* file) { return CRegistry::ReadTree(file, node); });
  return path != kStartOrder.end() ? *path : "";
}

LoadedStore LoadStore(Output& out) {
  CRegistryNode node;
  std::string path = LoadFirst(node);
  if (path.empty()) ThrowNothingLoaded();
  if (path != kStoreFile) WarnAboutFallback(path.c_str(), out);
  return {CopyOfNode(node), std::move(path)};
}

StoreKey ReadStoreFile(const std::string& path) {
  const std::string bytes = ReadWholeFile(path);
  if (IsExport(bytes)) return ParseExport(bytes, path);
  CRegistryNode node;
  if (!CRegistry::ReadTree(path.c_str(), node)) {
    throw CommandError(ExitCode::kInputDamaged, "the file holds no registry value", path, "see ravctl registry verify");
  }
  return CopyOfNode(node);
}

StoreKey ReadStoreOrLive(const std::string& what, Output& out) {
  if (what == "live") return LoadStore(out).root;
  if (!IsTree(what)) return ReadStoreFile(what);
  const Json text = ReadInTree(what, [&out] { return Json(ExportText(LoadStore(out).root)); });
  return ParseExport(text.get<std::string>(), what);
}

}  // namespace ravctl
