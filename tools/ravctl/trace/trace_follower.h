#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

namespace ravctl {

// Which files of an application to follow; an empty path is left out.
struct FollowedTrace {
  std::string directory;  // where they are
  std::string start;      // the ring buffer of its start
  std::string run;        // the ring buffer of its run
  std::string log;        // instead of both
  pid_t pid = 0;          // ends with that process, 0: never
};

// Who takes the entries.
class EntrySink {
 public:
  virtual ~EntrySink() = default;
  // One entry, with its end of line.
  virtual void Take(std::string_view whole) = 0;
  // What was there already is handed over; from here on entries are new.
  virtual void GoLive() = 0;
  virtual void Flush() = 0;
  // Whether nobody wants more.
  virtual bool IsClosed() const = 0;
  virtual void WarnAboutLoss(const std::string& path) = 0;
};

// Hands over what is there and then what is added, over wraps and restarts of the application, until the process has
// ended and its last words are read, the sink is closed or the reader of the standard output is gone. Throws
// CommandError for a file that may not be read.
void FollowTrace(const FollowedTrace& trace, EntrySink& sink);

}  // namespace ravctl
