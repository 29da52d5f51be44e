#include "platform/str_map.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

TEST(StrMap, OrderIsBytewiseWithNullNamesLast) {
  const char* const ascending[] = {"", "A", "B", "a", "a1", "\xC3\xA4", nullptr};
  for (size_t left = 0; left < std::size(ascending); ++left) {
    for (size_t right = 0; right < std::size(ascending); ++right) {
      const int result = CStrMap::compare(ascending[left], ascending[right]);
      EXPECT_EQ((result > 0) - (result < 0), (left > right) - (left < right)) << left << " and " << right;
    }
  }
}

TEST(StrMap, StaysSortedWhileNamesComeAndGo) {
  CStrMap map;
  int values[97] = {};
  const auto name = [](int number) { return "key" + std::to_string(number); };
  EXPECT_EQ(map.Find("key0"), nullptr);
  for (int step = 0; step < 97; ++step) {
    const int number = step * 31 % 97;
    CStrMap::Entry* entry = map.Insert(name(number).c_str());
    ASSERT_TRUE(entry != nullptr && entry->value == nullptr && entry->third == 0) << number;
    entry->value = &values[number];
  }
  EXPECT_EQ(map.Insert("key5")->value, &values[5]) << "the name was there";
  EXPECT_EQ(map.Insert(nullptr), nullptr);
  for (int number = 0; number < 97; number += 2)
    EXPECT_TRUE(map.Remove(name(number).c_str()));
  EXPECT_FALSE(map.Remove("key0") || map.Remove(nullptr));
  for (int number = 0; number < 97; ++number) {
    const CStrMap::Entry* entry = map.Find(name(number).c_str());
    EXPECT_EQ(entry != nullptr ? entry->value : nullptr, number % 2 == 1 ? &values[number] : nullptr) << number;
  }
  EXPECT_EQ(map.Entries().size(), 48u);
  EXPECT_TRUE(std::ranges::is_sorted(map.Entries(), {}, [](const CStrMap::Entry& e) { return std::string(e.key); }));
}
