#include "account/FormEncoder.h"

#include <gtest/gtest.h>

using namespace zrv::account;

TEST(FormEncoder, LettersMarksAndDigitsOfEveryScriptPassEverythingElseIsPercentEncoded) {
  struct Case {
    std::string text, expected;
  } cases[] = {
      {"a b@c", "a%20b%40c"},
      {"*-._", "*-._"},
      {"+&=/~!'()", "%2B%26%3D%2F%7E%21%27%28%29"},
      {"é", "é"},
      {"e\xCC\x81", "e\xCC\x81"},  // a combining accent is a mark
      {"日本語٣", "日本語٣"},
      {"\xF0\x9F\x98\x80", "%F0%9F%98%80"},  // an emoji is no letter
      {"\t\n%", "%09%0A%25"},
      {"", ""},
      // Malformed text goes unit by unit.
      {"a\xFF b\xC3\xA9", "a%FF%20bé"},
      {"\xED\xA0\x80x", "%D800x"},
      {std::string("n\0l", 3), "n%00l"},
  };
  for (const auto& c : cases) EXPECT_EQ(encoded(c.text), c.expected) << c.text;
  EXPECT_EQ(encoded(std::nullopt), std::nullopt);
}
