#pragma once

#include <functional>

// Makes one call of a system function fail with EIO, or does something right before it. The test program carries its
// own fsync, link, rename and fclose, which fail where they are told to and pass everything else on to the system.
//
//   const FailingCall failure("rename", 2);  // the second call from here on
class FailingCall {
 public:
  // With an action, that runs and the call does not fail.
  FailingCall(const char* function, int callNumber, std::function<void()> action = {});
  ~FailingCall();
  FailingCall(const FailingCall&) = delete;
  FailingCall& operator=(const FailingCall&) = delete;

  // Whether that call was made.
  bool HasHappened() const;
};
