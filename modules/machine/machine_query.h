#pragma once

#include <sys/types.h>

#include <string>

#include "machine/machine_record.h"
#include "platform/unique_fd.h"

// Asks ravd-machine, with a deadline. One thread asks; any thread may call Stop, which ends a query under way within a
// few milliseconds and makes later ones fail. A program that does not even end when it is killed (it waits in the
// kernel for a dead disk) is left behind, and nothing is asked as long as it is there: they never pile up.
class MachineQuery {
 public:
  // The path of the program; beside the directory of the module that calls, else where the package has it.
  static std::string FindProgram();

  explicit MachineQuery(std::string program = FindProgram());
  // Nobody asks any more. Waits for nothing.
  ~MachineQuery();
  MachineQuery(const MachineQuery&) = delete;
  MachineQuery& operator=(const MachineQuery&) = delete;

  // arguments: "hardware", "hardware serials" or "volumes". False, records unchanged and a trace line, without an
  // answer in that time, for one that is cut short and when there is no such program; without the line after Stop.
  bool Ask(const char* arguments, int timeoutMs, MachineRecords& records);
  void Stop();

 private:
  bool Start(const char* arguments, UniqueFd& answer);
  bool ReadAnswer(int answer, int timeoutMs, std::string& text);
  bool Reap(int timeoutMs);
  bool IsStopped() const;

  const std::string m_Program;
  const UniqueFd m_Stop;  // readable once stopped
  pid_t m_Child = 0;      // 0 = none that is to be waited for
};
