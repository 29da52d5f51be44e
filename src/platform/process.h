#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "platform/export.h"

// Operations on processes and on the current directory. There is no state; any thread may call them.
//
// Nothing here traces or throws: a failure shows in the result alone, and outputs that could not be determined get
// their value for none: kNone for a process or an exit code, 0 for a memory value. Other outputs stay as they were.
//
// A command line is split at white space into words, without quoting or escaping; the first word is the program, looked
// up through PATH when it contains no '/'. A program that cannot be run counts as one that exited with status 255.
// Unless inheritHandles is set, the child gets descriptors 0, 1 and 2 alone (one that lies beyond the limit of open
// files, because that was lowered later, is not looked for). It takes SIGINT, SIGTERM, SIGHUP and
// SIGALRM even where the caller blocks them.
//
// All signals have their default action in the child, also those that the caller ignores.
//
// A command given a directory is started in it, while the process itself stays where it is. When the directory cannot
// be entered nothing runs, nor when the process's own directory cannot be told.
class RAVD_EXPORT CProcess {
 public:
  static constexpr uint32_t kNone = 0xFFFFFFFF;  // no such process; exit code not known

  // By how many steps of 1024 a memory value is divided.
  enum unit : unsigned int {
    bytes = 0,      // by none
    kilobytes = 1,  // by one
    megabytes = 2,  // by two
    gigabytes = 3,  // by three
  };

  // Value of one line of /proc/PID/status, in the unit; key with its colon, as in "VmRSS:". When the file or the key is
  // missing, value keeps what the caller put there, divided all the same; a unit of 7 and more leaves nothing.
  static void GetProcessMemorySpecificInfo(uint32_t pid, uint64_t& value, const std::string& key, unit inUnit);

  // In bytes, all from one reading of the status file: virtual size, its peak, what is swapped out, and the size
  // without libraries (0 in the case that these should be larger). fourth is always 0. True when size and peak are
  // known.
  static bool GetProcessMemoryInfo(uint32_t pid, uint64_t& size, uint64_t& peak, uint64_t& swap, uint64_t& fourth,
                                   uint64_t& noLib);

  // First line, without its newline, of a file in the process's directory of /proc. True when the file could be opened,
  // even if it is empty; otherwise, and for a null name, out is unchanged.
  static bool get_proc_file(int pid, const char* name, std::string& out);

  // The kernel's short name of the command, at most 15 characters.
  static bool GetProcessName(std::string& out, uint32_t pid);
  // Full path of the executable. Needs the right to look into the process.
  static bool GetProcessPath(std::string& out, uint32_t pid);
  // Both of the above; one may have been stored even if the other failed.
  static bool GetProcessInfo(uint32_t pid, std::string& name, std::string& path);

  // The first process with exactly this short name; names longer than 15 characters never match.
  static bool FindProcess(uint32_t& pid, const char* name);

  // Runs a command and waits for it, without limit. True exactly when it exited with status 0. exitCode is its status,
  // or kNone when it did not start, was ended by a signal or could not be waited for. directory may be null. ignored
  // has no effect:
  static bool ExecuteCmd(const std::string& cmdLine, const char* directory, bool ignored, bool inheritHandles);
  static bool ExecuteCmd(const std::string& cmdLine, uint32_t& pid, uint32_t& exitCode, const char* directory,
                         bool ignored, bool inheritHandles);
  // Starts a command and does not wait. True when it has a process, whether or not its program could be run. The caller
  // who is told the process waits for it with WaitForExit; until then it stays behind as a zombie when it has ended.
  // One that nobody is told of is no child of this process and leaves nothing behind - but where orphans come to this
  // process (it is the first of a container, or asked for them), and where children are reaped by others: there the
  // result is false:
  static bool ExecuteCmdAsync(const std::string& cmdLine, const char* directory, bool ignored, bool inheritHandles);
  static bool ExecuteCmdAsync(const std::string& cmdLine, uint32_t& pid, const char* directory, bool ignored,
                              bool inheritHandles);
  // The one behind the four. exitCode stays kNone with async.
  static bool execute_command(const std::string& cmdLine, uint32_t& pid, uint32_t& exitCode, const char* directory,
                              bool ignored, bool async, bool inheritHandles);

  // Waits for a child without limit of time; result and exitCode as of ExecuteCmd. The last argument has no effect.
  // False at once for what is no single process: 0, kNone and everything above the range of process identifiers.
  static bool WaitForExit(uint32_t pid, uint32_t& exitCode, uint32_t ignored);
  // Sends SIGKILL. The last argument has no effect. False, and nothing is sent, for what is no single process: to the
  // system 0 and the negative numbers mean whole groups, or everybody.
  static bool TerminateProcess(uint32_t pid, uint32_t ignored);
  // Not supported: count becomes 1, the result is false.
  static bool GetProcessHandleCount(uint32_t pid, uint32_t& count);

  // The current directory of the process, with its whole path. False, and out unchanged, when the system does not tell
  // it.
  static bool GetCurrentDir(std::string& out);
  // Changes it for the whole process, every thread included. False for null, for an empty text and when the system
  // refuses.
  static bool SetCurrentDir(const char* directory);
};
