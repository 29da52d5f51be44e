#pragma once

#include "support/daemon_root.h"

// What the proofs share. A proof is a test case of its own that ends with one figure; RAVD_PROVE=short in the
// environment makes it brief.

bool IsShort();
inline int Rounds(int whole, int brief) {
  return IsShort() ? brief : whole;
}

// Prints the line that the runner shows.
void Figure(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// Lines that went to syslog since the last call.
int TakeSyslogLines();

// One system call of a program's run, as strace saw it.
struct SystemCall {
  std::string name;
  int number;  // how many of that name up to this one
  std::string line;
};
// The calls that strace wrote to /calls, between the first and the last getppid.
std::vector<SystemCall> ReadCalls();

// Runs of this program under strace: the part between two calls of getppid is what faults are injected into.
int RunWorker(const std::string& name);
