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

void CPercentSum::Add(uint128 part, uint64_t whole) {
  ++m_Elements;
  if (whole != 0) m_Sum += part * kWhole / whole;
}

unsigned char CPercentSum::OverInstances(size_t instances) const {
  if (instances == 0) return 0;
  return Cap((m_Sum * 100 + kHalf) / (uint128{instances} * kWhole));
}

unsigned char CPercentSum::OverElements() const {
  if (m_Elements == 0) return 0;
  return Cap((m_Sum / m_Elements * 100 + kHalf) / kWhole);
}
