#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "platform/unique_fd.h"

namespace ravctl {

// How a piece of work in a child process ended.
struct ChildResult {
  bool isTimeout = false;  // it was killed when the time was over
  int signal = 0;          // that ended it, 0 when none did
  int status = -1;         // exit status, -1 when it did not end by itself
  std::string report;      // what the work wrote to its descriptor
};

// A child process for what may crash or hang, which leaves nothing behind. The result of the work is its exit status;
// reportFd is where it may write what it found. The child's standard output goes to the standard error, so that it
// cannot mix with a command's answer.
//
// Its parent is a keeper, a process that no Ctrl-C reaches. The keeper kills the child with all that it started, in
// whatever process group or session, when the time is over, when the child has ended and when this process is gone, for
// whatever reason, SIGKILL included; in that case it then does what is to be done instead of this process. What left
// the child's process group is found through /proc. Who kills the keeper, too, kills the child with it, but not what
// the child started, and what was to be done is left undone.
//
// For a process with one thread, one object at a time.
class KeptChild {
 public:
  // whenGone: done by the keeper when this process ended without destroying the object. Throws CommandError when no
  // child can be made.
  explicit KeptChild(const std::function<int(int reportFd)>& work, const std::function<void()>& whenGone = {});
  // Ends what still runs.
  ~KeptChild();
  KeptChild(const KeptChild&) = delete;
  KeptChild& operator=(const KeptChild&) = delete;

  // Until it has ended, at most that long; nothing of it runs any more then. meanwhile: called with what the work has
  // reported so far, after each piece of it and several times a second. To be called once. Throws CommandError when the
  // keeper could not make it.
  ChildResult Wait(int timeoutSeconds, const std::function<void(const std::string& report)>& meanwhile = {});

 private:
  void Tell(size_t steps) const;

  pid_t m_Keeper = -1;
  UniqueFd m_Report;
  UniqueFd m_Ending;
  UniqueFd m_Life;  // closed when this process ends, which the keeper sees
};

// All in one.
ChildResult RunInChild(int timeoutSeconds, const std::function<int(int reportFd)>& work);

// A program by its path, with these words behind its name. The report is its standard output; what it says on the
// standard error is dropped. Status 127 when it cannot be run.
ChildResult RunProgram(int timeoutSeconds, const std::string& path, const std::vector<std::string>& words);

}  // namespace ravctl
