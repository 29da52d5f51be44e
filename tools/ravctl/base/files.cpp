#include "ravctl/base/files.h"

#include <fcntl.h>
#include <unistd.h>

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
