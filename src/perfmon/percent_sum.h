#pragma once

#include <cstddef>
#include <cstdint>

#include "perfmon/perf_data.h"

// Which fields of a record a percentage is made of: a bit per field that counts in the numerator, and the position of
// the denominator. {0b0110, 0} => (field 1 + field 2) / field 0.
struct PercentRule {
  uint8_t numerator;
  uint8_t denominator;
};

// Adds up the ratios of records in thousandths of a percent and rounds once at the end. All arithmetic is on integers
// and wide enough for any contents of the records. Not shared between threads.
class CPercentSum {
 public:
  explicit CPercentSum(PercentRule rule) : m_Rule(rule) {}

  // Adds numerator x 100000 / denominator, or 0 for a zero denominator.
  void Add(const PerfFields& fields);

  // Mean over that many instances, an instance without an element counting as 0. 10.000 and 21.000 over 2 => 15.
  unsigned char OverInstances(size_t instances) const;

  // Mean over the elements added, cut to thousandths before it is rounded. 0 without any.
  unsigned char OverElements() const;

 private:
  PercentRule m_Rule;
  uint128 m_Sum = 0;
  size_t m_Elements = 0;
};
