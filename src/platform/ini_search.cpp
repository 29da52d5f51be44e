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

// Compares 16 places at once: a place can be a hit when '[' stands there, or when the key's last two characters stand
// at their distance from it. Keys that begin alike are common, those that end alike are not.
class Probe {
 public:
  explicit Probe(std::string_view key)
      : m_Bracket(_mm_set1_epi8('[')),
        m_LastButOne(_mm_set1_epi8(key[key.size() < 2 ? 0 : key.size() - 2])),
        m_Last(_mm_set1_epi8(key.back())),
        m_DistanceToLastButOne(key.size() < 2 ? 0 : key.size() - 2),
        m_DistanceToLast(key.size() - 1) {}

  __m128i Hits(const char* text) const {
    const __m128i isBracket = _mm_cmpeq_epi8(Load(text), m_Bracket);
    const __m128i isLastButOne = _mm_cmpeq_epi8(Load(text + m_DistanceToLastButOne), m_LastButOne);
    const __m128i isLast = _mm_cmpeq_epi8(Load(text + m_DistanceToLast), m_Last);
    return _mm_or_si128(isBracket, _mm_and_si128(isLastButOne, isLast));
  }

 private:
  __m128i m_Bracket;
  __m128i m_LastButOne;
  __m128i m_Last;
  size_t m_DistanceToLastButOne;
  size_t m_DistanceToLast;
};

bool IsHit(std::string_view text, size_t place, std::string_view key) {
  return text[place] == '[' || text.substr(place, key.size()) == key;
}

}  // namespace

size_t FindHeaderOf(std::string_view text, std::string_view section) {
  for (size_t place = text.find('['); place != std::string_view::npos; place = text.find('[', place + 1)) {
    const std::string_view name = text.substr(place + 1);
    if (name.size() <= section.size() || (name[section.size()] == ']' && name.starts_with(section))) return place;
  }
  return std::string_view::npos;
}

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
