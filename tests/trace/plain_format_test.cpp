#include "trace/plain_format.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <string>

namespace {

// What FormatPlain says, beside what vsnprintf says of the same; "-" when it hands over.
std::string Plain(size_t size, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
std::string Plain(size_t size, const char* fmt, ...) {
  std::string text(size + 1, '#');
  va_list args;
  va_start(args, fmt);
  va_list again;
  va_copy(again, args);
  const int length = FormatPlain(text.data(), size, fmt, args);
  std::string expected(4096, '\0');
  expected.resize(static_cast<size_t>(std::vsnprintf(expected.data(), expected.size(), fmt, again)));
  va_end(again);
  va_end(args);
  EXPECT_EQ(text.back(), '#') << fmt << ": writes behind its room";
  if (length < 0) return "-";
  text.resize(static_cast<size_t>(length) + 1);
  EXPECT_EQ(text, expected + '\0') << fmt;
  return text.substr(0, static_cast<size_t>(length));
}

}  // namespace

TEST(PlainFormat, SaysWhatVsnprintfSays) {
  const char* volatile none = nullptr;  // the compiler would not have it
  EXPECT_EQ(Plain(99, "%s|%c|100%%|", none, 'x'), "(null)|x|100%|");
  EXPECT_EQ(Plain(99, "%d %d %i %u", INT_MIN, INT_MAX, -0, UINT_MAX), "-2147483648 2147483647 0 4294967295");
  EXPECT_EQ(Plain(99, "%x %X %lx %llX", 0xBEEFU, 0xBEEFU, ULONG_MAX, 0xABCULL), "beef BEEF ffffffffffffffff ABC");
  EXPECT_EQ(Plain(99, "%ld %lld %lu %llu %zu", LONG_MIN, -1LL, 7UL, 8ULL, size_t{9}), "-9223372036854775808 -1 7 8 9");
  EXPECT_EQ(Plain(99, "%zd", ssize_t{-1}), "-1");
}

TEST(PlainFormat, HandsOverWhatItDoesNotKnowOrHaveRoomFor) {
  EXPECT_EQ(Plain(99, "%5d", 1), "-");
  EXPECT_EQ(Plain(99, "%-5s", ""), "-");
  EXPECT_EQ(Plain(99, "%.2f", 1.0), "-");
  EXPECT_EQ(Plain(99, "%p", nullptr), "-");
  EXPECT_EQ(Plain(99, "%hhu", static_cast<unsigned char>(1)), "-");
  EXPECT_EQ(Plain(99, "%ls", L"x"), "-");
  EXPECT_EQ(Plain(4, "%s", "1234"), "-");
  EXPECT_EQ(Plain(4, "%d", 1234), "-");
  EXPECT_EQ(Plain(4, "%s", "123"), "123");
  EXPECT_EQ(Plain(0, "x"), "-");
}
