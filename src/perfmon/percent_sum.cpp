#include "perfmon/percent_sum.h"

#include <algorithm>

namespace {

constexpr uint64_t kWhole = 100000;  // a ratio of 1
constexpr uint64_t kHalf = 50000;
constexpr uint64_t kMaxPercent = 100;

unsigned char Cap(uint128 percent) {
  return static_cast<unsigned char>(std::min<uint128>(percent, kMaxPercent));
}

}  // namespace

void CPercentSum::Add(const PerfFields& fields) {
  ++m_Elements;
  const uint64_t denominator = fields[m_Rule.denominator];
  if (denominator == 0) return;
  uint128 numerator = 0;
  for (size_t i = 0; i < fields.size(); ++i) {
    if ((unsigned{m_Rule.numerator} >> i & 1U) != 0) numerator += fields[i];
  }
  m_Sum += numerator * kWhole / denominator;
}

unsigned char CPercentSum::OverInstances(size_t instances) const {
  if (instances == 0) return 0;
  return Cap((m_Sum * 100 + kHalf) / (uint128{instances} * kWhole));
}

unsigned char CPercentSum::OverElements() const {
  if (m_Elements == 0) return 0;
  return Cap((m_Sum / m_Elements * 100 + kHalf) / kWhole);
}
