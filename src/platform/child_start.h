#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

// Closes the descriptors from first to end - 1. Safe between fork and exec, and in a child that executes nothing.
void CloseDescriptors(unsigned int first, unsigned int end);
// The end of the descriptors that a process may have. Not safe there.
unsigned int DescriptorLimit();

// Waits for the end of a child of this process, whatever interrupts. False when the status is lost: it is no child of
// this process (any more), or somebody ignores the end of children.
bool WaitForEnd(pid_t child, int& status);

// Everything that a child needs to become another program, prepared before the fork: between fork and exec the child
// of a process with threads may only call functions that are safe in a signal handler, since any lock may be held by a
// thread that does not exist in the child. No allocation, no look-up and no call that may lock stands there.
//
// Used by one thread, for one start. Never traces.
class CChildStart {
 public:
  // words: the program and its arguments. The program is looked up the way execvp does it. directory: open and the
  // child's working directory, borrowed; -1 for that of this process.
  CChildStart(std::vector<std::string> words, bool inheritHandles, int directory = -1);
  CChildStart(const CChildStart&) = delete;
  CChildStart& operator=(const CChildStart&) = delete;

  // The child's process identifier, -1 when there is none. The child exits with status 255 when the program cannot be
  // run.
  pid_t Start();
  // The same as no child of this process: whoever takes in orphans waits for it. True when it was started.
  bool StartOrphan();

 private:
  [[noreturn]] void RunChild();
  void ExecuteCandidates();

  std::vector<std::string> m_Words;
  std::vector<std::string> m_Candidates;  // paths of the program in the order of PATH
  std::vector<char*> m_Arguments;         // null-terminated
  std::vector<char*> m_ShellArguments;    // the same for a script without an interpreter line
  const int m_Directory;
  unsigned int m_FirstKeptDescriptor;  // those from 3 up to here are closed; 0 = none
};
