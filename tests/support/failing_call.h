#pragma once

// Makes one call of a system function fail with EIO. The test program carries its own fsync, rename and fclose, which
// fail where they are told to and pass everything else on to the system.
//
//   const FailingCall failure("rename", 2);  // the second call from here on
class FailingCall {
 public:
  FailingCall(const char* function, int callNumber);
  ~FailingCall();
  FailingCall(const FailingCall&) = delete;
  FailingCall& operator=(const FailingCall&) = delete;

  // Whether that call was made.
  bool HasHappened() const;
};
