#pragma once

#include "prove/prove.h"

// Runs of a worker (see RunWorker) whose system calls fail, or that are killed in one. Inside FaultRoot::Run only.

// A root with this program as /prove.
class FaultRoot : public FixtureRoot {
 public:
  FaultRoot();
  void Run(const std::function<void()>& body) const { FixtureRoot::Run(body, kUsr | kProc); }
};

// The command that runs the worker under strace, its calls written to /calls. Bytes is how much of a text is shown, in
// hexadecimal digits.
std::vector<std::string> Strace(const std::string& option, const std::string& worker, int bytes = 0);

// "error=EIO" and so on: what a disk, its quota, its mount or a signal may do to a call.
std::vector<std::string> Errors();

// Calls back for each call of the worker with what was injected there, once and from then on. A signal is injected
// once. Result: how many were.
struct FaultRun {
  std::string worker;
  std::vector<std::string> faults;
  std::function<void()> prepare;
  std::function<void(int status, const std::string& what)> check;
};
int ForEachFault(const FaultRun& run);

int RunIniWorker(const std::string& name);
