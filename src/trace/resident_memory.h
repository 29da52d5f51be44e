#pragma once

#include <cstddef>

// The resident set size of the own process in kB, read anew for every question.
//
// Keeps a descriptor of /proc/self/statm, whose resident pages times the page size are the figure of the VmRSS line of
// the status file at a fraction of its cost. The descriptor belongs to the process that opened it, so it is opened
// again after a fork and when somebody closed it. Not synchronised.
class ResidentMemory {
 public:
  constexpr ResidentMemory() = default;
  ~ResidentMemory() { Close(); }
  ResidentMemory(const ResidentMemory&) = delete;
  ResidentMemory& operator=(const ResidentMemory&) = delete;

  // 0 when the kernel does not tell.
  size_t ReadKb();
  void Close();

 private:
  bool ReadPages(size_t& pages);
  bool ReadKeptDescriptor(size_t& pages);
  bool Open();

  int m_Fd = -1;
  unsigned int m_Generation = 0;  // counts forks: which process opened m_Fd
  size_t m_PageKb = 0;            // size of a page in kB
};
