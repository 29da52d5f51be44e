#include "ravctl/base/error.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "ravctl/base/text.h"

namespace ravctl {

CommandError::CommandError(ExitCode code, std::string_view what, std::string_view where, std::string_view toDo)
    : std::runtime_error(OneLine(what, where, toDo)), m_Code(code) {}

CommandError SystemFailure(std::string_view what, std::string_view path, int error) {
  const std::string where = std::string(path) + ": " + std::strerror(error);
  if (error == EACCES || error == EPERM) {
    return {ExitCode::kPermission, what, where, ::geteuid() == 0 ? "the system forbids it even to root" : "needs root"};
  }
  const bool isMissing = error == ENOENT || error == ENOTDIR;
  return {ExitCode::kInputMissing, what, where, isMissing ? "check the path" : ""};
}

std::string OneLine(std::string_view what, std::string_view where, std::string_view toDo) {
  std::string line = Printable(what);
  if (!where.empty()) line += ": " + Printable(where);
  if (!toDo.empty()) line += " (" + Printable(toDo) + ")";
  return line;
}

}  // namespace ravctl
