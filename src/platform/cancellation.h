#pragma once

#include <pthread.h>

// Holds back the cancellation of the calling thread for a scope. A cancelled thread unwinds through the functions that
// it is in; a destructor must not be left that way, and a change of several steps must not stop half-way.
class CancellationBlock {
 public:
  // From here on a request to end the thread waits.
  CancellationBlock() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_State); }
  // As it was before; a request that waits takes effect at the next cancellation point.
  ~CancellationBlock() { pthread_setcancelstate(m_State, nullptr); }
  CancellationBlock(const CancellationBlock&) = delete;
  CancellationBlock& operator=(const CancellationBlock&) = delete;

 private:
  int m_State = PTHREAD_CANCEL_ENABLE;
};
