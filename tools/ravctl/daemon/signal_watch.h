#pragma once

#include <signal.h>

#include <chrono>
#include <initializer_list>

#include "platform/unique_fd.h"

namespace ravctl {

using Clock = std::chrono::steady_clock;

// "2.5" seconds of an option as a time.
std::chrono::milliseconds Seconds(double seconds);
// What poll takes to wait until then: 0 when it is over, never more than an hour.
int TimeoutUntil(Clock::time_point end);

// Turns signals into something to wait for, so that a command that goes on can put things in order before it ends. The
// signals stay blocked while the object lives; processes and threads that are started meanwhile have them blocked too.
// One object at a time, in the main thread, made before any other thread.
class SignalWatch {
 public:
  // Throws CommandError when the system offers no descriptor for them.
  explicit SignalWatch(std::initializer_list<int> signals);
  // One that came and was not taken takes its usual effect then.
  ~SignalWatch();
  SignalWatch(const SignalWatch&) = delete;
  SignalWatch& operator=(const SignalWatch&) = delete;

  // Readable when a signal has come.
  int Descriptor() const { return m_Signals.Get(); }
  // The next signal that has come, 0 when none has.
  int Take() const;
  // Waits until then. Returns the signal that came before, 0 when none did. Ends early, with SIGPIPE, when the reader
  // of the standard output has gone.
  int WaitUntil(Clock::time_point end) const;

 private:
  UniqueFd m_Signals;
  sigset_t m_Previous{};
};

// Whether the reader of the standard output (a pipe) has gone.
bool IsOutputClosed();

}  // namespace ravctl
