#include "info/InvasionDepartments.h"

#include <ZRVKit/ZRVException.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>

namespace {

std::string withCase(std::string text, int (*change)(int)) {
  std::transform(text.begin(), text.end(), text.begin(), [&](unsigned char c) { return char(change(c)); });
  return text;
}

}  // namespace

TEST(InvasionDepartments, EverySpellingInAnyCaseFindsItsDepartment) {
  const auto& table = InvasionDepartments::gameDepartments();
  for (const auto& department : table.departments()) {
    for (const std::string& spelling : department.types) {
      for (const std::string& variant : {spelling, withCase(spelling, ::toupper), withCase(spelling, ::tolower)}) {
        EXPECT_EQ(table.departmentForType(variant), department.name) << variant;
      }
    }
  }
}

TEST(InvasionDepartments, GameTableHasTheGamesShape) {
  const auto& departments = InvasionDepartments::gameDepartments().departments();
  struct Expected {
    const char* name;
    std::size_t spellings;
    std::size_t compoundAt;  // list position (from 1) of a compound type's closed form; 0 for none
  } expected[] = {{"Northwing", 10, 2}, {"Eastwing", 8, 0}, {"Southwing", 10, 2}, {"Westwing", 10, 4}};
  ASSERT_EQ(departments.size(), 4u);
  for (std::size_t i = 0; i < 4; ++i) {
    const auto& types = departments[i].types;
    EXPECT_EQ(departments[i].name, expected[i].name);
    ASSERT_EQ(types.size(), expected[i].spellings) << expected[i].name;
    if (std::size_t at = expected[i].compoundAt) {
      // Closed form, hyphenated form, and the two parts joined by U+0003, in that order.
      const std::string& hyphenated = types[at];
      auto hyphen = hyphenated.find('-');
      ASSERT_NE(hyphen, std::string::npos) << hyphenated;
      std::string closed = hyphenated;
      closed.erase(hyphen, 1);
      std::string marked = hyphenated;
      marked[hyphen] = '\x03';
      EXPECT_TRUE(types[at - 1] == closed || withCase(types[at - 1], ::tolower) == withCase(closed, ::tolower));
      EXPECT_EQ(types[at + 1], marked);
    }
  }
}

TEST(InvasionDepartments, OnlyLetterCaseIsIgnored) {
  const auto& table = InvasionDepartments::gameDepartments();
  EXPECT_EQ(table.departmentForType("shell\x03SHOCKER"), "Southwing");
  EXPECT_EQ(table.departmentForType("WAVE-breaker"), "Westwing");
  for (const char* unknown : {"Wave breaker", "Wave_breaker", "Foghorn ", "Kelp and Co.", "", "Admiral Nobody"}) {
    EXPECT_EQ(table.departmentForType(unknown), "Northwing") << unknown;
  }
}

TEST(InvasionDepartments, MalformedTablesAreRefused) {
  for (const char* json : {"", "{}", "[]", R"([{"department": "A"}])", R"([{"department": "A", "types": [1]}])"}) {
    EXPECT_THROW(InvasionDepartments{json}, ZRVException) << json;
  }
}
