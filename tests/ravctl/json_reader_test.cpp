// JSON from outside, and what is too much of it.

#include <gtest/gtest.h>

#include "ravctl/base/json_reader.h"

using ravctl::ReadJson;

namespace {

std::string Repeat(const std::string& piece, size_t count) {
  std::string text;
  while (count-- > 0)
    text += piece;
  return text;
}

}  // namespace

TEST(JsonReader, ReadsWhatTheWriterWrites) {
  for (const char* text :
       {"null", "5", "\"a\"", "[]", "{}", R"({"b":[1,-2,3.5,true,null,{"x":"\u00e4"}],"a":{}})", "[[],[[]]]"}) {
    std::string why;
    const auto value = ReadJson(text, why);
    ASSERT_TRUE(value) << text << why;
    EXPECT_EQ(*value, nlohmann::ordered_json::parse(text));
    EXPECT_EQ(value->dump(), nlohmann::ordered_json::parse(text).dump());
  }
  std::string why;
  EXPECT_EQ(ReadJson(R"({"a":1,"b":2,"a":[3]})", why)->dump(), R"({"a":[3],"b":2})");
}

TEST(JsonReader, RefusesWhatIsDamagedOrTooMuch) {
  std::string keys;
  for (int number = 0; number < 200000; ++number)
    keys += ",\"" + std::to_string(number) + "\":0";
  const std::pair<std::string, const char*> rows[] = {{"", "it is no JSON at byte 1"},
                                                      {"{\"a\":", "it is no JSON at byte 6"},
                                                      {"[1,]", "it is no JSON at byte 4"},
                                                      {"[] x", "it is no JSON at byte 4"},
                                                      {Repeat("[", 1000000), "it nests too deep"},
                                                      {Repeat("{\"a\":", 100000), "it nests too deep"},
                                                      {"{\"x\":1" + keys + "}", "too many keys in one object"},
                                                      {"[" + Repeat("0,", 2100000) + "0]", "too many values"},
                                                      {std::string((64 << 20) + 1, ' '), "it is too large"}};
  for (const auto& [text, fault] : rows) {
    std::string why;
    EXPECT_FALSE(ReadJson(text, why)) << fault;
    EXPECT_EQ(why, fault) << text.substr(0, 20);
  }
  std::string why;
  EXPECT_TRUE(ReadJson("[[{\"a\":1}]]", why, {.size = 11, .depth = 3, .keys = 1, .values = 4}));
}
