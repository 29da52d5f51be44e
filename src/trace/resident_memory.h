#pragma once

#include <cstddef>
#include <cstdint>

// The resident set size of the own process in kB.
//
// Keeps a descriptor of /proc/self/statm, whose resident pages times the page size are the figure of the VmRSS line of
// the status file at a fraction of its cost. The descriptor belongs to the process that opened it: a forked child has
// to forget it. When somebody else closed it, it is opened again. Not synchronised.
class ResidentMemory {
 public:
  constexpr ResidentMemory() = default;
  ~ResidentMemory() { Close(); }
  ResidentMemory(const ResidentMemory&) = delete;
  ResidentMemory& operator=(const ResidentMemory&) = delete;

  // Read anew; 0 when the kernel does not tell.
  size_t ReadKb();

  // The size at that moment in microseconds: what was read last, unless a millisecond has passed since, or the clock
  // has stepped back.
  size_t KbAt(int64_t now) {
    if (now < m_ReadAt || now - m_ReadAt >= kMillisecond) {
      m_Kb = ReadKb();
      m_ReadAt = now;
    }
    return m_Kb;
  }

  void Close();
  // Without closing it: in a child the number is the parent's, or anybody's.
  void ForgetInChild();

 private:
  static constexpr int64_t kMillisecond = 1000;

  bool ReadPages(size_t& pages);
  bool Open();

  int m_Fd = -1;
  size_t m_PageKb = 0;               // size of a page in kB
  int64_t m_ReadAt = -kMillisecond;  // when m_Kb was read, in microseconds
  size_t m_Kb = 0;
};
