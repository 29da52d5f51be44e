#pragma once

#include <cstddef>
#include <cstdint>

#include "perfmon/perf_data.h"

// Adds up the ratios of records in thousandths of a percent and rounds once at the end. All arithmetic is on integers
// and wide enough for any contents of the records. Not shared between threads.
class CPercentSum {
 public:
  // Adds part x 100000 / whole, or 0 for a whole of zero.
  void Add(uint128 part, uint64_t whole);

  // Mean over that many instances, an instance without an element counting as 0. 10.000 and 21.000 over 2 => 15.
  unsigned char OverInstances(size_t instances) const;

  // Mean over the elements added, cut to thousandths before it is rounded. 0 without any.
  unsigned char OverElements() const;

 private:
  uint128 m_Sum = 0;
  size_t m_Elements = 0;
};
