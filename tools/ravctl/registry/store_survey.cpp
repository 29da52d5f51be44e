#include "ravctl/registry/store_survey.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "platform/descriptor_io.h"
#include "platform/regular_file.h"
#include "ravctl/registry/store_files.h"

namespace ravctl {

namespace {

constexpr std::array<const char*, 4> kAllFiles = {kStoreFile, kStoreOld, kStoreDefault, kStoreNew};

std::string WhyNotUsable(const StoreFileState& file) {
  if (!file.Exists()) return "it is not there";
  if (file.error != 0) return std::string("it cannot be read: ") + std::strerror(file.error);
  if (file.bytes == 0) return "it is empty";
  return file.check.hasValueLine ? "" : "it holds no value";
}

// As the library loads: the first of three that can be opened and holds a value.
void MarkLoaded(std::vector<StoreFileState>& files) {
  const StoreFileState* loaded = nullptr;
  for (StoreFileState& file : files) {
    const bool isOfStart = std::ranges::find(kStartOrder, file.path) != kStartOrder.end();
    const std::string fault = WhyNotUsable(file);
    if (file.path == kStoreNew) {
      file.reason = fault.empty() || file.Exists() ? "a start never loads it; a save that did not end left it" : fault;
    } else if (!isOfStart) {
      file.reason = "a start does not look at it";
    } else if (!fault.empty()) {
      file.reason = fault;
    } else if (loaded != nullptr) {
      file.reason = "a start takes " + loaded->path + " before it";
    } else {
      file.isLoaded = true;
      file.reason = "a start loads it: the first that can be read and holds a value";
      loaded = &file;
    }
  }
}

std::vector<std::string> OtherFiles() {
  std::vector<std::string> paths;
  std::error_code error;
  for (std::filesystem::directory_iterator at(kStoreDirectory, error), end; !error && at != end; at.increment(error)) {
    std::string path = at->path().string();
    if (path.starts_with(kStoreFile) && std::ranges::find(kAllFiles, path) == kAllFiles.end()) {
      paths.push_back(std::move(path));
    }
  }
  std::ranges::sort(paths);
  return paths;
}

const StoreFileState* FindFile(const std::vector<StoreFileState>& files, const char* path) {
  const auto found = std::ranges::find(files, path, &StoreFileState::path);
  return found != files.end() ? &*found : nullptr;
}

}  // namespace

bool StoreFileState::Exists() const {
  return error != ENOENT && error != ENOTDIR;
}

StoreFileState LookAtStoreFile(const std::string& path) {
  StoreFileState file;
  file.path = path;
  const UniqueFd opened = OpenRegularFile(path.c_str(), O_RDONLY);
  file.error = opened ? 0 : errno;
  if (!opened) return file;
  std::string bytes;
  if (!ReadToEnd(opened.Get(), bytes)) file.error = errno;
  struct stat info {};
  if (::fstat(opened.Get(), &info) == 0) file.modified = info.st_mtim.tv_sec;
  file.bytes = bytes.size();
  file.check = CheckStore(bytes);
  return file;
}

std::vector<StoreFileState> SurveyStore() {
  std::vector<StoreFileState> files;
  for (const char* path : kAllFiles)
    files.push_back(LookAtStoreFile(path));
  for (const std::string& path : OtherFiles())
    files.push_back(LookAtStoreFile(path));
  MarkLoaded(files);
  return files;
}

const StoreFileState* BestStoreFile(const std::vector<StoreFileState>& files) {
  constexpr std::array<const char*, 3> kBySaves = {kStoreFile, kStoreNew, kStoreOld};
  const StoreFileState* best = nullptr;
  for (const char* path : kBySaves) {
    const StoreFileState* file = FindFile(files, path);
    if (file == nullptr || file->error != 0 || !file->check.hasValueLine) continue;
    if (file->IsWhole()) return file;
    if (best == nullptr || file->check.values > best->check.values) best = file;
  }
  if (best != nullptr) return best;
  const StoreFileState* last = FindFile(files, kStoreDefault);
  return last != nullptr && last->error == 0 && last->check.hasValueLine ? last : nullptr;
}

}  // namespace ravctl
