#include "ravctl/registry/private_copy.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "platform/descriptor_io.h"
#include "platform/regular_file.h"
#include "platform/unique_fd.h"
#include "ravctl/answer/error.h"

namespace ravctl {

namespace {

[[noreturn]] void FailToCopy(const std::string& path, int error) {
  throw CommandError(error == EACCES ? ExitCode::kPermission : ExitCode::kInputMissing, "cannot make a private copy",
                     path + ": " + std::strerror(error), "let TMPDIR name a directory with space");
}

std::string TemporaryDirectory() {
  const char* directory = std::getenv("TMPDIR");
  return directory != nullptr && *directory != '\0' ? directory : "/tmp";
}

}  // namespace

std::optional<std::string> ReadIfThere(const std::string& path) {
  const UniqueFd file = OpenRegularFile(path.c_str(), O_RDONLY);
  if (!file && errno == ENOENT) return std::nullopt;
  std::string content;
  if (!file) throw SystemFailure("cannot open", path, errno);
  if (!ReadToEnd(file.Get(), content)) throw SystemFailure("cannot read", path, errno);
  return content;
}

PrivateCopy::PrivateCopy(const std::optional<std::string>& content)
    : m_Directory(TemporaryDirectory() + "/ravctl-XXXXXX") {
  if (::mkdtemp(m_Directory.data()) == nullptr) FailToCopy(TemporaryDirectory(), errno);
  m_Path = m_Directory + "/copy";
  if (content) Fill(*content);
}

void PrivateCopy::Fill(const std::string& content) const {
  const UniqueFd file = OpenRegularFile(m_Path.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600);
  if (file && WriteAllAt(file.Get(), content, 0)) return;
  const int error = errno;
  Remove();
  FailToCopy(m_Path, error);
}

PrivateCopy::~PrivateCopy() {
  Remove();
}

void PrivateCopy::Remove() const {
  std::error_code ignored;
  std::filesystem::remove_all(m_Directory, ignored);
}

}  // namespace ravctl
