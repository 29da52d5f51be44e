#include "platform/process.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <csignal>
#include <string_view>
#include <vector>

#include "platform/child_start.h"
#include "platform/descriptor_io.h"
#include "platform/directory_stream.h"
#include "platform/text_cursor.h"
#include "platform/unique_fd.h"

namespace {

constexpr const char* kProc = "/proc/";
constexpr size_t kPathSize = 4096;
constexpr unsigned int kUnitsOfAllBits = 7;  // of 1024 each, in 64 bits

template <typename Pid>
std::string FileOfProcess(Pid pid, const char* name) {
  return kProc + std::to_string(pid) + "/" + name;
}

uint64_t Multiplier(std::string_view unitName) {
  if (unitName == "kB") return uint64_t{1} << 10;
  if (unitName == "MB") return uint64_t{1} << 20;
  if (unitName == "GB") return uint64_t{1} << 30;
  return 1;
}

// "VmRSS:     10244 kB" with the key "VmRSS:" => 10244 * 1024
bool ParseStatusLine(std::string_view line, std::string_view key, uint64_t& value) {
  TextCursor cursor(line);
  uint64_t number = 0;
  if (cursor.Word() != key || !cursor.Field(number, 10)) return false;
  value = number * Multiplier(cursor.Word());
  return true;
}

void FindInStatus(std::string_view status, std::string_view key, uint64_t& value) {
  while (!status.empty()) {
    const std::string_view line = status.substr(0, status.find('\n'));
    if (ParseStatusLine(line, key, value)) return;
    status.remove_prefix(std::min(line.size() + 1, status.size()));
  }
}

// "42" => 42; 0 for everything that is no process
uint32_t ParsePid(std::string_view name) {
  uint32_t pid = 0;
  const std::from_chars_result end = std::from_chars(name.data(), name.data() + name.size(), pid);
  return end.ec == std::errc() && end.ptr == name.data() + name.size() ? pid : 0;
}

std::vector<std::string> SplitIntoWords(std::string_view text) {
  std::vector<std::string> words;
  TextCursor cursor(text);
  for (std::string_view word = cursor.Word(); !word.empty(); word = cursor.Word())
    words.emplace_back(word);
  return words;
}

bool IsSingleProcess(uint32_t pid) {
  return pid > 0 && pid <= INT_MAX;
}

bool WaitForChild(pid_t child, uint32_t& exitCode) {
  int status = 0;
  if (!WaitForEnd(child, status) || !WIFEXITED(status)) return false;
  exitCode = static_cast<uint32_t>(WEXITSTATUS(status));
  return exitCode == 0;
}

// The directory for a command. False when it cannot be entered, or when the process has none to come back to.
bool OpenDirectory(const char* path, UniqueFd& directory) {
  std::string current;
  if (!CProcess::GetCurrentDir(current) || *path == '\0') return false;
  directory = UniqueFd(::open(path, O_PATH | O_DIRECTORY | O_CLOEXEC));
  return directory && ::faccessat(directory.Get(), ".", X_OK, AT_EACCESS) == 0;
}

}  // namespace

void CProcess::GetProcessMemorySpecificInfo(uint32_t pid, uint64_t& value, const std::string& key, unit inUnit) {
  std::string status;
  if (OpenAndReadToEnd(FileOfProcess(pid, "status").c_str(), status)) FindInStatus(status, key, value);
  value = inUnit < kUnitsOfAllBits ? value >> (10 * static_cast<unsigned int>(inUnit)) : 0;
}

bool CProcess::GetProcessMemoryInfo(uint32_t pid, uint64_t& size, uint64_t& peak, uint64_t& swap, uint64_t& fourth,
                                    uint64_t& noLib) {
  size = peak = swap = fourth = noLib = 0;
  std::string status;
  if (!OpenAndReadToEnd(FileOfProcess(pid, "status").c_str(), status)) return false;
  uint64_t libraries = 0;
  FindInStatus(status, "VmPeak:", peak);
  FindInStatus(status, "VmSize:", size);
  FindInStatus(status, "VmSwap:", swap);
  FindInStatus(status, "VmLib:", libraries);
  noLib = size - std::min(size, libraries);
  return peak != 0 && size != 0;
}

bool CProcess::get_proc_file(int pid, const char* name, std::string& out) {
  std::string content;
  if (name == nullptr || !OpenAndReadToEnd(FileOfProcess(pid, name).c_str(), content)) return false;
  out = content.substr(0, content.find('\n'));
  return true;
}

bool CProcess::GetProcessName(std::string& out, uint32_t pid) {
  return get_proc_file(static_cast<int>(pid), "comm", out);
}

bool CProcess::GetProcessPath(std::string& out, uint32_t pid) {
  char path[kPathSize + 1] = {};
  const ssize_t length = ::readlink(FileOfProcess(pid, "exe").c_str(), path, kPathSize);
  if (length < 1) return false;
  out = path;
  return true;
}

bool CProcess::GetProcessInfo(uint32_t pid, std::string& name, std::string& path) {
  const bool hasName = GetProcessName(name, pid);
  return GetProcessPath(path, pid) && hasName;
}

bool CProcess::FindProcess(uint32_t& pid, const char* name) {
  pid = kNone;
  const DirectoryStream processes(::opendir(kProc));
  if (processes == nullptr || name == nullptr) return false;
  while (const dirent* entry = ::readdir(processes.get())) {
    const uint32_t candidate = ParsePid(entry->d_name);
    std::string candidateName;
    if (candidate == 0 || !GetProcessName(candidateName, candidate) || candidateName != name) continue;
    pid = candidate;
    return true;
  }
  return false;
}

bool CProcess::ExecuteCmd(const std::string& cmdLine, const char* directory, bool ignored, bool inheritHandles) {
  uint32_t pid = kNone;
  uint32_t exitCode = kNone;
  return ExecuteCmd(cmdLine, pid, exitCode, directory, ignored, inheritHandles);
}

bool CProcess::ExecuteCmd(const std::string& cmdLine, uint32_t& pid, uint32_t& exitCode, const char* directory,
                          bool ignored, bool inheritHandles) {
  return execute_command(cmdLine, pid, exitCode, directory, ignored, false, inheritHandles);
}

bool CProcess::ExecuteCmdAsync(const std::string& cmdLine, const char* directory, bool /*ignored*/,
                               bool inheritHandles) {
  UniqueFd entered;
  if (directory != nullptr && !OpenDirectory(directory, entered)) return false;
  return CChildStart(SplitIntoWords(cmdLine), inheritHandles, entered.Get()).StartOrphan();
}

bool CProcess::ExecuteCmdAsync(const std::string& cmdLine, uint32_t& pid, const char* directory, bool ignored,
                               bool inheritHandles) {
  uint32_t exitCode = kNone;
  return execute_command(cmdLine, pid, exitCode, directory, ignored, true, inheritHandles);
}

bool CProcess::execute_command(const std::string& cmdLine, uint32_t& pid, uint32_t& exitCode, const char* directory,
                               bool /*ignored*/, bool async, bool inheritHandles) {
  pid = kNone;
  exitCode = kNone;
  UniqueFd entered;
  if (directory != nullptr && !OpenDirectory(directory, entered)) return false;
  const pid_t child = CChildStart(SplitIntoWords(cmdLine), inheritHandles, entered.Get()).Start();
  if (child < 0) return false;
  pid = static_cast<uint32_t>(child);
  return async || WaitForChild(child, exitCode);
}

bool CProcess::WaitForExit(uint32_t pid, uint32_t& exitCode, uint32_t /*ignored*/) {
  exitCode = kNone;
  return IsSingleProcess(pid) && WaitForChild(static_cast<pid_t>(pid), exitCode);
}

bool CProcess::TerminateProcess(uint32_t pid, uint32_t /*ignored*/) {
  return IsSingleProcess(pid) && ::kill(static_cast<pid_t>(pid), SIGKILL) == 0;
}

bool CProcess::GetProcessHandleCount(uint32_t /*pid*/, uint32_t& count) {
  count = 1;
  return false;
}

bool CProcess::GetCurrentDir(std::string& out) {
  char path[kPathSize + 1] = {};
  if (::getcwd(path, kPathSize) == nullptr || path[0] == '\0') return false;
  out = path;
  return true;
}

bool CProcess::SetCurrentDir(const char* directory) {
  return directory != nullptr && *directory != '\0' && ::chdir(directory) == 0;
}
