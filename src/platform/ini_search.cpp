#include "platform/ini_search.h"

#include <emmintrin.h>

#include <bit>
#include <cstring>

namespace {

constexpr size_t kWidth = sizeof(__m128i);
constexpr size_t kBlock = 4 * kWidth;

__m128i Load(const char* bytes) {
  __m128i loaded;
  std::memcpy(&loaded, bytes, sizeof loaded);
  return loaded;
}

// Compares 16 places at once: a place can be a hit when '[' stands there, or the key's first character with the key's
// last one at its distance.
class Probe {
 public:
  explicit Probe(std::string_view key)
      : m_Bracket(_mm_set1_epi8('[')),
        m_First(_mm_set1_epi8(key.front())),
        m_Last(_mm_set1_epi8(key.back())),
        m_Distance(key.size() - 1) {}

  __m128i Hits(const char* text) const {
    const __m128i here = Load(text);
    const __m128i there = Load(text + m_Distance);
    return _mm_or_si128(_mm_cmpeq_epi8(here, m_Bracket),
                        _mm_and_si128(_mm_cmpeq_epi8(here, m_First), _mm_cmpeq_epi8(there, m_Last)));
  }

 private:
  __m128i m_Bracket;
  __m128i m_First;
  __m128i m_Last;
  size_t m_Distance;
};

bool IsHit(std::string_view text, size_t place, std::string_view key) {
  return text[place] == '[' || text.substr(place, key.size()) == key;
}

}  // namespace

size_t FindHeaderOrKey(std::string_view text, std::string_view key) {
  const Probe probe(key);
  size_t place = 0;
  for (; text.size() - place >= kBlock + key.size(); place += kBlock) {
    const char* block = text.data() + place;
    const __m128i hits[] = {probe.Hits(block), probe.Hits(block + kWidth), probe.Hits(block + 2 * kWidth),
                            probe.Hits(block + 3 * kWidth)};
    const __m128i any = _mm_or_si128(_mm_or_si128(hits[0], hits[1]), _mm_or_si128(hits[2], hits[3]));
    if (_mm_movemask_epi8(any) == 0) continue;
    for (size_t part = 0; part < 4; ++part) {
      for (auto bits = static_cast<unsigned int>(_mm_movemask_epi8(hits[part])); bits != 0; bits &= bits - 1) {
        const size_t candidate = place + part * kWidth + static_cast<size_t>(std::countr_zero(bits));
        if (IsHit(text, candidate, key)) return candidate;
      }
    }
  }
  for (; place < text.size(); ++place) {
    if (IsHit(text, place, key)) return place;
  }
  return std::string_view::npos;
}
