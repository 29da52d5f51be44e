#include "platform/ini_reader.h"

#include <emmintrin.h>

#include <bit>
#include <cstring>

#include "platform/descriptor_io.h"
#include "platform/ini_text.h"

namespace {

constexpr size_t kReadBlock = 64 * 1024;
constexpr size_t kWidth = sizeof(__m128i);
constexpr size_t kWindow = 32 * kWidth;  // a line that is read in pieces contains one such window from end to end
static_assert(2 * kWindow - 1 <= kMaxIniLine + 1);

__m128i Load(const char* bytes) {
  __m128i loaded;
  std::memcpy(&loaded, bytes, sizeof loaded);
  return loaded;
}

// Whether a key or a header ends before that character.
bool IsBehindWord(char c) {
  return static_cast<unsigned char>(c) <= ' ' || (c >= ';' && c <= '=');
}

__m128i IsWhiteSpace(__m128i bytes) {
  return _mm_cmpeq_epi8(_mm_min_epu8(bytes, _mm_set1_epi8(' ')), bytes);
}

__m128i IsBehindWord(__m128i bytes) {
  const __m128i bounded = _mm_min_epu8(_mm_max_epu8(bytes, _mm_set1_epi8(';')), _mm_set1_epi8('='));
  return _mm_or_si128(IsWhiteSpace(bytes), _mm_cmpeq_epi8(bounded, bytes));
}

// Where to look for lines.
struct Wanted {
  std::string_view word;  // a key or a header with its brackets, not empty
  char other;

  bool IsAt(std::string_view line) const {
    if (line.empty() || line.front() == '\n') return false;
    if (static_cast<unsigned char>(line.front()) <= ' ' || line.front() == other) return true;
    return line.starts_with(word) && (line.size() == word.size() || IsBehindWord(line[word.size()]));
  }
};

// Looks at 16 places at once: a line may be wanted when it begins with white space, with the other character, or with
// a word of that length and the wanted one's last two characters. Words that begin alike are common, those that end
// alike are not.
class Probe {
 public:
  explicit Probe(const Wanted& wanted)
      : m_Other(_mm_set1_epi8(wanted.other)),
        m_LastButOne(_mm_set1_epi8(wanted.word[wanted.word.size() < 2 ? 0 : wanted.word.size() - 2])),
        m_Last(_mm_set1_epi8(wanted.word.back())),
        m_Length(wanted.word.size()) {}

  __m128i Hits(const char* text, __m128i isBeginning) const {
    const __m128i first = Load(text);
    const __m128i isLastButOne = _mm_cmpeq_epi8(Load(text + m_Length - (m_Length < 2 ? 1 : 2)), m_LastButOne);
    const __m128i isLast = _mm_cmpeq_epi8(Load(text + m_Length - 1), m_Last);
    const __m128i isWord = _mm_and_si128(_mm_and_si128(isLastButOne, isLast), IsBehindWord(Load(text + m_Length)));
    const __m128i isWanted = _mm_or_si128(isWord, _mm_or_si128(IsWhiteSpace(first), _mm_cmpeq_epi8(first, m_Other)));
    return _mm_and_si128(isBeginning, isWanted);
  }

 private:
  const __m128i m_Other;
  const __m128i m_LastButOne;
  const __m128i m_Last;
  const size_t m_Length;
};

// The beginning of a wanted line, a place inside a line that is read in pieces, or the beginning of the last line. The
// text begins with a line.
size_t FindWanted(std::string_view text, const Wanted& wanted) {
  if (wanted.IsAt(text)) return 0;
  const Probe probe(wanted);
  const size_t needed = kWindow + wanted.word.size();
  size_t place = 1;
  for (; text.size() >= place + needed; place += kWindow) {
    __m128i hasNewline = _mm_setzero_si128();
    for (size_t part = place; part < place + kWindow; part += kWidth) {
      const __m128i isBeginning = _mm_cmpeq_epi8(Load(text.data() + part - 1), _mm_set1_epi8('\n'));
      hasNewline = _mm_or_si128(hasNewline, isBeginning);
      auto bits = static_cast<unsigned int>(_mm_movemask_epi8(probe.Hits(text.data() + part, isBeginning)));
      for (; bits != 0; bits &= bits - 1) {
        const size_t candidate = part + static_cast<size_t>(std::countr_zero(bits));
        if (wanted.IsAt(text.substr(candidate))) return candidate;
      }
    }
    if (_mm_movemask_epi8(hasNewline) == 0) return place;
  }
  size_t line = text.substr(0, place).rfind('\n') + 1;  // 0 when there is none
  for (; !wanted.IsAt(text.substr(line)); line += IniLineLength(text.substr(line))) {
    const std::string_view rest = text.substr(line);
    if (const size_t length = IniLineLength(rest); length == rest.size() || rest[length - 1] != '\n') break;
  }
  return line;
}

// Start of the line, or of its piece, in which the text ends; the text itself begins with a line.
size_t StartOfLine(std::string_view text) {
  const size_t begin = text.rfind('\n') + 1;  // 0 when there is none
  return begin + (text.size() - begin) / kMaxIniLine * kMaxIniLine;
}

}  // namespace

bool IniReader::NextWith(std::string_view& line, std::string_view word, char other) {
  if (m_Block == nullptr) m_Block = std::make_unique_for_overwrite<char[]>(kReadBlock);
  for (;;) {
    std::string_view rest(m_Block.get() + m_Begin, m_End - m_Begin);
    if (!word.empty()) {
      const size_t begin = StartOfLine(rest.substr(0, FindWanted(rest, {word, other})));
      rest.remove_prefix(begin);
      m_Begin += begin;
    }
    const size_t length = IniLineLength(rest);
    const bool isComplete = m_IsAtEnd || length == kMaxIniLine || (length > 0 && rest[length - 1] == '\n');
    if (!isComplete) {
      Refill();
      continue;
    }
    line = rest.substr(0, length);
    m_Begin += length;
    return length > 0;
  }
}

// Makes the unread rest the beginning of the block and reads on.
void IniReader::Refill() {
  std::memmove(m_Block.get(), m_Block.get() + m_Begin, m_End - m_Begin);
  m_End -= m_Begin;
  m_Begin = 0;
  const ssize_t count = ReadSome(m_Fd, m_Block.get() + m_End, kReadBlock - m_End);
  if (count > 0) m_End += static_cast<size_t>(count);
  m_IsAtEnd = count <= 0;
}
