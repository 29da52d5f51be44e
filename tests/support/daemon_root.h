#pragma once

#include "support/fixture_root.h"

// The built daemon in a root of its own, driven from outside; all but DaemonRoot is for the body of its Run.

inline constexpr const char* kLog = "/var/log/pelrix/log.ravd";
inline constexpr const char* kRing = "/var/log/pelrix/log.ravd_a";
inline constexpr const char* kStartUpRing = "/var/log/pelrix/log.ravd_i";
inline constexpr const char* kPackedRing = "/var/log/pelrix/log.ravd_i.gz";
inline constexpr const char* kPidFile = "/var/run/ravd.pid";
inline constexpr const char* kLockFile = "/var/lock/ravd.lock";
inline constexpr const char* kLibraryDirectory = "/lib-%n%s";  // every message that names it has it as text
inline constexpr const char* kLibrary = "/lib-%n%s/libswitch.so";
inline constexpr const char* kNoLibrary = "text";

class DaemonRoot : public FixtureRoot {
 public:
  // The paths of the daemon's binary and of the switch library on the machine; kNoLibrary puts a text in its place,
  // null nothing. The run level file says 3.
  DaemonRoot(const std::string& binary, const std::string& library);
  // Whatever a daemon leaves behind becomes a child of the process that runs the body.
  void Run(const std::function<void()>& body) const;
};

// At level 5 into a ring buffer of 1 MiB, for the daemons started from now on.
void SwitchTracingOn();

// Starts the program with these arguments, its standard error in /stderr; the child's PID.
pid_t Start(const std::vector<std::string>& command);
// The wait status of the child; fails the test when it has not ended after that many seconds, and kills it.
int WaitFor(pid_t child, int seconds = 20);
int RunCommand(const std::vector<std::string>& command);
bool WaitUntil(const std::function<bool()>& condition, int seconds = 20);

// The content of a file, empty when there is none.
std::string TextOf(const std::string& path);

// Starts the daemon without an old log file. In the background the child that goes on as the daemon; before it is ready
// it has no PID file.
pid_t StartDaemon(bool isBackground = false, const std::vector<std::string>& options = {});
pid_t PidOfDaemon();
// Waits until it takes signals.
bool WaitReady();
bool WaitForLog(const std::string& text);
std::string Log();

int CountIn(const std::string& text, const std::string& part);
// Every part behind the one before it.
void ExpectInOrder(const std::string& text, std::initializer_list<const char*> parts);
