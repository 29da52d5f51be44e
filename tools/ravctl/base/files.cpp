#include "ravctl/base/files.h"

#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "platform/descriptor_io.h"
#include "platform/regular_file.h"
#include "platform/unique_fd.h"
#include "ravctl/base/error.h"

namespace ravctl {

namespace {

constexpr const char* kTemporaryPlace = "/tmp";

bool IsFull(const std::string& directory, size_t growth) {
  struct statvfs info {};
  if (::statvfs(directory.c_str(), &info) != 0) return false;
  return info.f_favail == 0 || static_cast<unsigned long long>(info.f_bavail) * info.f_frsize < growth;
}

}  // namespace

int ReadFileInto(const std::string& path, std::string& content) {
  const UniqueFd file = OpenRegularFile(path.c_str(), O_RDONLY);
  return file && ReadToEnd(file.Get(), content) ? 0 : errno;
}

std::string ReadWholeFile(const std::string& path) {
  std::string content;
  const int error = ReadFileInto(path, content);
  if (error != 0) throw SystemFailure("cannot read", path, error);
  return content;
}

std::optional<std::string> ReadFileIfThere(const std::string& path) {
  std::string content;
  const int error = ReadFileInto(path, content);
  if (error == ENOENT) return std::nullopt;
  if (error != 0) throw SystemFailure("cannot read", path, error);
  return content;
}

void WriteNewFile(const std::string& path, std::string_view content) {
  const UniqueFd file(::open(path.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!file && errno == EEXIST) {
    throw CommandError(ExitCode::kUsage, "the file exists and is not overwritten", path, "choose another name");
  }
  if (!file) throw SystemFailure("cannot create the file", path, errno);
  if (WriteAllAt(file.Get(), content, 0) && ::fsync(file.Get()) == 0) return;
  const int error = errno;
  ::unlink(path.c_str());
  throw SystemFailure("cannot write the file", path, error);
}

void ThrowNotWritten(const std::string& path, const std::optional<std::string>& old, std::string_view wanted) {
  const std::string directory = DirectoryPart(path);
  if (old && ::access(path.c_str(), W_OK) != 0) throw SystemFailure("cannot write", path, errno);
  if (!old && ::access(directory.c_str(), W_OK | X_OK) != 0) {
    throw SystemFailure("cannot make a file in", directory, errno);
  }
  const size_t growth = wanted.size() - std::min(wanted.size(), old ? old->size() : 0);
  const bool isFull = growth > 0 && IsFull(directory, growth);
  const bool isAsBefore = ReadFileIfThere(path) == old;
  throw CommandError(isAsBefore ? ExitCode::kInputMissing : ExitCode::kInputDamaged, "cannot write",
                     path + (isFull ? ": no space is left" : ""),
                     isAsBefore ? "the file is as it was" : "the file is neither the old nor the new one: look at it");
}

std::string DirectoryPart(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, std::max<size_t>(slash, 1));
}

TemporaryDirectory::TemporaryDirectory() {
  const char* set = std::getenv("TMPDIR");
  const bool isSet = set != nullptr && *set != '\0';
  std::error_code ignored;
  const std::string place = std::filesystem::absolute(isSet ? set : kTemporaryPlace, ignored).string();
  m_Path = place + "/ravctl-XXXXXX";
  if (::mkdtemp(m_Path.data()) != nullptr) return;
  const int error = errno;
  throw CommandError(error == EACCES ? ExitCode::kPermission : ExitCode::kInputMissing,
                     "cannot make a temporary directory",
                     (isSet ? "TMPDIR=" + std::string(set) : place) + ": " + std::strerror(error),
                     isSet ? "let TMPDIR name a directory that can be written to" : "make room, or set TMPDIR");
}

void TemporaryDirectory::Remove() const {
  std::error_code ignored;
  std::filesystem::remove_all(m_Path, ignored);
}

}  // namespace ravctl
