#include "support/daemon_root.h"

#include <sys/prctl.h>

#include <fstream>

DaemonRoot::DaemonRoot(const std::string& binary, const std::string& library) {
  for (const char* directory : {"/var/log/pelrix", "/var/run", "/var/lock", "/etc/pelrix", kLibraryDirectory, "/dev"})
    MakeDirectory(directory);
  WriteFile("/etc/pelrix/RunLevel", "3");
  std::filesystem::copy(binary, HostPath("/ravd"));
  if (library.empty()) return;
  if (library == kNoLibrary) {
    WriteFile(kLibrary, std::string(5000, 'x'));
  } else {
    std::filesystem::copy(library, HostPath(kLibrary));
  }
}

void DaemonRoot::Run(const std::function<void()>& body) const {
  FixtureRoot::Run(kUsr | kProc, [&body] {
    ::prctl(PR_SET_CHILD_SUBREAPER, 1);
    ::setenv("LD_LIBRARY_PATH", kLibraryDirectory, 1);
    ::setenv("QN_NICKNAME", "SLES12", 1);  // the run level file counts, with systemd on the machine or without
    body();
  });
}

void SwitchTracingOn() {
  for (const char* variable : {"TraceFileLimit", "QN_LOG_RINGBUF_WEIGHT"})
    ::setenv(variable, "1", 1);
  ::setenv("QN_LOG_DEBUG_LEVEL", "5", 1);
  ::setenv("QN_LOG_FILE_MAX_SIZE", "1000000000", 1);
}

pid_t Start(const std::vector<std::string>& command) {
  const pid_t child = ::fork();
  if (child != 0) return child;
  ::close(STDERR_FILENO);
  ::open("/stderr", O_CREAT | O_TRUNC | O_WRONLY, 0644);
  std::vector<char*> argv;
  for (const std::string& argument : command)
    argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  ::execv(argv[0], argv.data());
  ::_exit(127);
}

bool WaitUntil(const std::function<bool()>& condition, int seconds) {
  for (int tries = 0; tries < seconds * 500; ++tries) {
    if (condition()) return true;
    ::usleep(2000);
  }
  return false;
}

int WaitFor(pid_t child, int seconds) {
  int status = 0;
  if (WaitUntil([&] { return ::waitpid(child, &status, WNOHANG) == child; }, seconds)) return status;
  ADD_FAILURE() << "process " << child << " does not end";
  ::kill(child, SIGKILL);
  ::waitpid(child, &status, 0);
  return status;
}

int RunCommand(const std::vector<std::string>& command) {
  const int status = WaitFor(Start(command));
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

std::string TextOf(const std::string& path) {
  std::ifstream stream(path, std::ios::binary);
  std::ostringstream content;
  content << stream.rdbuf();
  return content.str();
}

pid_t StartDaemon(bool isBackground, const std::vector<std::string>& options) {
  ::unlink(kLog);
  std::vector<std::string> command = {"/ravd"};
  for (const std::string& option : options)
    command.push_back(option);
  if (!isBackground) command.emplace_back("-n");
  const pid_t started = Start(command);
  if (isBackground) {
    EXPECT_EQ(WaitFor(started), 0);
  }
  return started;
}

pid_t PidOfDaemon() {
  return std::atoi(ReadWholeFile(kPidFile).c_str());
}

bool WaitReady() {
  return WaitForLog("Waiting for signals...");
}

bool WaitForLog(const std::string& text) {
  return WaitUntil([&text] { return Log().find(text) != std::string::npos; });
}

std::string Log() {
  return TextOf(kLog);
}

int CountIn(const std::string& text, const std::string& part) {
  int count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size()))
    ++count;
  return count;
}

void ExpectInOrder(const std::string& text, std::initializer_list<const char*> parts) {
  size_t at = 0;
  for (const char* part : parts) {
    const size_t found = text.find(part, at);
    ASSERT_NE(found, std::string::npos) << part << " is missing behind position " << at << " of\n" << text;
    at = found;
  }
}
