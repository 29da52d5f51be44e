#include "platform/str_map.h"

#include <gtest/gtest.h>

#include <string>

TEST(StrMap, StaysSortedWhileNamesComeAndGo) {
  CStrMap map;
  int values[97] = {};
  const auto name = [](int number) { return "key" + std::to_string(number); };
  for (int number = 31; number != 0; number = (number + 31) % 97) {
    CStrMap::Entry* entry = map.Insert(name(number).c_str());
    ASSERT_TRUE(entry != nullptr && entry->value == nullptr && entry->third == 0) << number;
    entry->value = &values[number];
  }
  EXPECT_EQ(map.Insert("key5")->value, &values[5]) << "the name was there";
  for (int number = 2; number < 97; number += 2)
    EXPECT_TRUE(map.Remove(name(number).c_str()));
  EXPECT_FALSE(map.Remove("key0") || map.Remove(nullptr) || map.Insert(nullptr) != nullptr);
  for (int number = 0; number < 97; ++number) {
    const CStrMap::Entry* entry = map.Find(name(number).c_str());
    EXPECT_EQ(entry != nullptr ? entry->value : nullptr, number % 2 == 1 ? &values[number] : nullptr) << number;
  }
  EXPECT_TRUE(CStrMap::compare("a", nullptr) < 0 && CStrMap::compare(nullptr, "\xFF") > 0);
  EXPECT_TRUE(CStrMap::compare(nullptr, nullptr) == 0 && CStrMap::compare("Z", "a") < 0);
}
