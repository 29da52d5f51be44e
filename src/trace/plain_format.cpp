#include "trace/plain_format.h"

#include <charconv>
#include <cstring>

namespace {

// Where the text grows, with room for a terminating zero kept free.
struct Room {
  char* at;
  char* end;

  bool Add(const char* text, size_t length) {
    if (length > static_cast<size_t>(end - at)) return false;
    std::memcpy(at, text, length);
    at += length;
    return true;
  }
  template <class Number>
  bool AddNumber(Number number, int base) {
    const auto [next, error] = std::to_chars(at, end, number, base);
    if (error == std::errc()) at = next;
    return error == std::errc();
  }
};

void MakeUpper(char* begin, const char* end) {
  for (; begin != end; ++begin)
    if (*begin >= 'a') *begin = static_cast<char>(*begin - 'a' + 'A');
}

bool AddUnsigned(Room& room, char conversion, unsigned long long number) {
  char* begin = room.at;
  if (!room.AddNumber(number, conversion == 'u' ? 10 : 16)) return false;
  if (conversion == 'X') MakeUpper(begin, room.at);
  return true;
}

}  // namespace

int FormatPlain(char* out, size_t size, const char* fmt, va_list args) {
  if (size == 0) return -1;
  Room room = {out, out + size - 1};
  for (;;) {
    const char* percent = std::strchr(fmt, '%');
    const size_t length = percent != nullptr ? static_cast<size_t>(percent - fmt) : std::strlen(fmt);
    if (!room.Add(fmt, length)) return -1;
    if (percent == nullptr) break;
    fmt = percent + 1;
    const bool isLong = *fmt == 'l' || *fmt == 'z';  // 64 bits, as with a second l
    if (isLong) fmt += fmt[0] == 'l' && fmt[1] == 'l' ? 2 : 1;
    bool fits = false;
    switch (const char conversion = *fmt++) {
      case 'd':
      case 'i':
        fits = room.AddNumber(isLong ? va_arg(args, long) : va_arg(args, int), 10);
        break;
      case 'u':
      case 'x':
      case 'X':
        fits = AddUnsigned(room, conversion, isLong ? va_arg(args, unsigned long) : va_arg(args, unsigned int));
        break;
      case 's': {
        if (isLong) return -1;  // wide characters
        const char* text = va_arg(args, const char*);
        if (text == nullptr) text = "(null)";
        fits = room.Add(text, std::strlen(text));
        break;
      }
      case 'c': {
        if (isLong) return -1;
        const char letter = static_cast<char>(va_arg(args, int));
        fits = room.Add(&letter, 1);
        break;
      }
      case '%':
        fits = !isLong && room.Add("%", 1);
        break;
      default:
        return -1;
    }
    if (!fits) return -1;
  }
  *room.at = '\0';
  return static_cast<int>(room.at - out);
}
