#include "info/InvasionDepartments.h"

#include <ZRVKit/ZRVException.h>

#include <gtest/gtest.h>

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
