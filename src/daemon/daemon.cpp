#include "daemon/daemon.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "daemon/build_info.h"
#include "daemon/catch_signals.h"
#include "daemon/command_line.h"
#include "daemon/daemon_name.h"
#include "daemon/file_lock.h"
#include "daemon/notify.h"
#include "daemon/pid_file.h"
#include "daemon/run_level.h"
#include "daemon/smbus_probe.h"
#include "daemon/switch_api.h"
#include "daemon/trusted_paths.h"
#include "trace/debug.h"

namespace {

constexpr const char* kLockPath = "/var/lock/ravd";
constexpr mode_t kUmask = 026;

// Whoever finds the standard descriptors closed opens its files under their numbers, and what is printed lands in them.
void ReserveStandardDescriptors() {
  int fd;
  do {
    fd = ::open("/dev/null", O_RDWR);
  } while (fd >= 0 && fd <= STDERR_FILENO);
  if (fd > STDERR_FILENO) ::close(fd);
}

// Every call but the last ones, in which code of the modules runs: it may have closed the standard descriptors for all
// of them.
template <class Call>
auto CallModules(Call call) {
  struct Afterwards {
    ~Afterwards() { ReserveStandardDescriptors(); }
  };
  const Afterwards afterwards;
  return call();
}

// The standard descriptors of whoever started the daemon are not the daemon's to keep.
void DetachStandardDescriptors() {
  const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
  if (null < 0) return;
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd)
    ::dup2(null, fd);
  ::close(null);
}

// Goes on in the child. The parent leaves without running any destructor: the lock stays with the child.
bool MoveToBackground(const char* program) {
  const pid_t child = ::fork();
  if (child < 0) {
    std::fprintf(stderr, "%s: %s-MAIN: Error! Cannot fork --> no demon !!!: %s\n", program, kDaemonName,
                 std::strerror(errno));
    return false;
  }
  if (child > 0) ::_exit(0);
  DetachStandardDescriptors();
  return true;
}

void LeaveSession() {
  ::setsid();
  [[maybe_unused]] const int staysWhereItWas = ::chdir("/");
  ::umask(kUmask);
}

void IgnoreSignal(int signal) {
  struct sigaction action {};
  action.sa_handler = SIG_IGN;
  ::sigemptyset(&action.sa_mask);
  ::sigaction(signal, &action, nullptr);
}

sigset_t HandledSignals() {
  sigset_t signals;
  ::sigemptyset(&signals);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGALRM})
    ::sigaddset(&signals, signal);
  return signals;
}

void BlockHandledSignals() {
  const sigset_t signals = HandledSignals();
  ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

void WriteBanner() {
  const time_t now = time(nullptr);
  tm local{};
  char calendar[64];
  const bool converted = localtime_r(&now, &local) != nullptr && asctime_r(&local, calendar) != nullptr;
  const char* start = converted ? calendar : "mmm dd hh:mm:ss yyyy\n";
  int major = 0;
  int minor = 0;
  int patch = 0;
  std::sscanf(build_info::kVersion, "%d.%d-%d", &major, &minor, &patch);
  Debug.PrintAlways(0, "%s Version=\"%d.%02d-%02d\" Milestone=\"%s\" Built=\"%s\" Start=\"%.15s\"",
                    build_info::kProgramName, major, minor, patch, build_info::kMilestone, build_info::kBuildStamp,
                    start + 4);
  Debug.PrintAlways(0, "%s-MAIN: running as x86_64 (64-Bit) process; Build on SLES11 GA x86_64 (64-Bit)", kDaemonName);
}

void OpenSyslog() {
  ::tzset();
  ::openlog(build_info::kProgramName, LOG_PID | LOG_NOWAIT, LOG_DAEMON);
  TRACE(3, "%s-MAIN: Syslog %s openend,", kDaemonName, build_info::kProgramName);
}

bool LoadSwitch(CSwitchApi& switchApi) {
  if (CallModules([&] { return switchApi.LoadSwitch(); })) return true;
  Debug.PrintAlways(0, "%s-MAIN: FATAL ERROR! Tavrik SWITCH could not be loaded!", kDaemonName);
  switchApi.CloseLibrary();
  return false;
}

// Without its modules the daemon goes on and waits for signals like a healthy one.
void StartModules(CSwitchApi& switchApi, const _ExtensionModuleLoaderConfig& config) {
  TRACE(2, "%s-MAIN: Load extension modules ...", kDaemonName);
  if (!CallModules([&] { return switchApi.LoadModules(config); })) {
    TRACE(1, "%s-MAIN: ERROR! Load extension modules FAILED!", kDaemonName);
    return;
  }
  TRACE(2, "%s-MAIN: ... extension modules loaded", kDaemonName);
  TRACE(2, "%s-MAIN: Start all modules  ...", kDaemonName);
  CallModules([&] { switchApi.switchInterface->StartModules(); });
  TRACE(2, "%s-MAIN: ... all modules started", kDaemonName);
}

void FinishStart() {
  CallModules([] { ::sleep(1); });  // their threads run by now
  Debug.PrintAlways(0, "%s-MAIN: ## Done initializing ##\n", kDaemonName);
  Debug.SetApplInitDone();
}

void WaitForSignals(CSwitchApi& switchApi) {
  const sigset_t signals = HandledSignals();
  Debug.PrintAlways(0, "\n%s-MAIN:  Waiting for signals...", kDaemonName);
  do {
    int signal = 0;
    const int error = ::sigwait(&signals, &signal);
    if (error != 0) {
      Debug.PrintAlways(0, "%s-MAIN: ## ERROR sigwait() failed (ret=%d) ##\n", kDaemonName, error);
      Debug.PrintAlways(
          0, "%s-MAIN: ## ERROR This is Operating System BUG, since sigwait() should never return an error !!! ##\n",
          kDaemonName);
      Debug.PrintAlways(
          0, "%s-MAIN: ## ERROR We do so as if SIGTERM has been sent to this process) --> Do Shutdown !!! ##\n",
          kDaemonName);
      signal = SIGTERM;
    } else {
      Debug.PrintAlways(0, "\n%s-MAIN:  ... got signal %d", kDaemonName, signal);
    }
    CallModules([&] { CatchSignals(signal, switchApi); });
  } while (!ExitEvent.IsSet());
}

void StopModules(CSwitchApi& switchApi) {
  Debug.PrintAlways(0, "%s-MAIN: ## Someone signaled exit state ##\n", kDaemonName);
  TRACE(2, "%s-MAIN::OnExitService      : Stopping all modules...\n", kDaemonName);
  if (switchApi.switchInterface != nullptr) CallModules([&] { switchApi.switchInterface->StopModules(); });
  TRACE(2, "%s-MAIN::OnExitService      : ... all modules stopped\n", kDaemonName);
  TRACE(2, "%s-MAIN::OnExitService      : Start unload of all registered extension modules ...\n", kDaemonName);
  CallModules([&] { return switchApi.UnloadModules(0); });
  TRACE(2, "%s-MAIN::OnExitService      : ... unload of all registered extension modules completed!\n", kDaemonName);
}

}  // namespace

int RunDaemon(int argc, char** argv) {
  ReserveStandardDescriptors();
  const char* program = argc > 0 ? argv[0] : build_info::kProgramName;
  if (::getuid() != 0) {
    std::fprintf(stderr, "%s: %s-MAIN: Error! Permission denied\n", program, kDaemonName);
    return 1;
  }
  IgnoreSignal(SIGXFSZ);  // a file above the starter's limit is a failed write, not the end of the process
  const bool isForeground = IsForeground(argc, argv);
  if (!isForeground) ::closefrom(STDERR_FILENO + 1);  // of whoever started the daemon, before it has any of its own
  const std::string notifySocket = NotifySocket();
  RememberRelease();
  CFileLock lock;
  if (!lock.Lock(kLockPath, build_info::kProgramName, 0)) {
    std::fprintf(stderr, "%s: %s-MAIN: Error! Another process instance is already running!\n", program, kDaemonName);
    return 1;
  }
  if (isForeground) {
    std::fprintf(stderr, "%s: %s-MAIN: started in \"No Demon\" Mode\n", program, kDaemonName);
  } else if (!MoveToBackground(program)) {
    return 1;
  }

  Debug.Init(build_info::kProgramName);
  Debug.SetMainParams(argc, argv);
  const _ExtensionModuleLoaderConfig config = ParseCommandLine(argc, argv);
  LeaveSession();
  IgnoreSignal(SIGPIPE);
  IgnoreSignal(SIGIO);
  BlockHandledSignals();  // before any other thread exists, so that all of them inherit it
  WriteBanner();
  OpenSyslog();
  if (config.RunMode == RUNMODE_NORMAL) DiscoverSmbusDriverInfo();
  CSwitchApi switchApi;
  if (!LoadSwitch(switchApi)) return 1;
  WarnOfWritablePaths(switchApi);
  WritePidFile();
  StartModules(switchApi, config);
  FinishStart();
  NotifyReady(notifySocket);

  WaitForSignals(switchApi);

  StopModules(switchApi);
  switchApi.Release();
  Debug.PrintAlways(0, "%s-MAIN: ## EXIT PROCESS %s ##\n", kDaemonName, kDaemonName);
  RemovePidFile();
  return 0;
}
