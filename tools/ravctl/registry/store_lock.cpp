#include "ravctl/registry/store_lock.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <string>
#include <utility>

#include "platform/descriptor_io.h"
#include "platform/process.h"
#include "ravctl/base/error.h"
#include "ravctl/base/files.h"
#include "ravctl/registry/store_files.h"

namespace ravctl {

namespace {

constexpr std::chrono::seconds kPatience{5};  // with one holder

// "process 4711 (ravctl)" as the file tells, which a full disk keeps empty.
std::string Holder() {
  std::string text, name;
  ReadFileInto(kStoreLock, text);
  const auto pid = static_cast<uint32_t>(std::strtoul(text.c_str(), nullptr, 10));
  if (pid == 0) return "a process that is not known";
  return "process " + std::to_string(pid) + (CProcess::GetProcessName(name, pid) ? " (" + name + ")" : "");
}

}  // namespace

StoreLock::StoreLock() : m_File(kStoreLock) {
  std::string holder = Holder();
  while (m_File.Open(kPatience) != CTempFile::kDone) {
    if (errno != EWOULDBLOCK) throw SystemFailure("cannot lock the registry", kStoreLock, errno);
    const std::string before = std::exchange(holder, Holder());
    if (holder != before) continue;
    throw CommandError(ExitCode::kInputMissing, "another edit of the registry does not end, nothing was written",
                       holder, "wait for it, or end it");
  }
  WriteAllAt(m_File.Get(), std::to_string(::getpid()) + "\n", 0);
}

}  // namespace ravctl
