#pragma once

#include <unistd.h>

#include <utility>

#include "platform/cancellation.h"

// Owns one file descriptor and closes it. -1 stands for none. Not shared between threads.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : m_Fd(fd) {}
  ~UniqueFd() { Reset(); }
  UniqueFd(UniqueFd&& other) noexcept : m_Fd(other.Release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) Reset(other.Release());
    return *this;
  }

  int Get() const { return m_Fd; }
  explicit operator bool() const { return m_Fd >= 0; }
  int Release() { return std::exchange(m_Fd, -1); }
  // A cancelled thread must not unwind out of the destructor.
  void Reset(int fd = -1) {
    if (m_Fd >= 0) {
      const CancellationBlock block;
      ::close(m_Fd);
    }
    m_Fd = fd;
  }

 private:
  int m_Fd = -1;
};
