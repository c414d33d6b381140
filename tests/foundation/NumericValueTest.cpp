#include "foundation/NumericValue.h"

#include <gtest/gtest.h>

#include <limits>

TEST(NumericValue, TextsReadByTheirLeadingNumber) {
  struct Case {
    const char* text;
    double asDouble;
    long long asInteger;
    bool asBool;
  } cases[] = {
      {"42", 42, 42, true},           {"  -7 apples", -7, -7, true}, {"1.5e3", 1500, 1, true},
      {".5", 0.5, 0, false},          {"+0012", 12, 12, true},       {"apples", 0, 0, false},
      {"", 0, 0, false},              {"inf", 0, 0, false},          {"YES", 0, 0, true},
      {"true", 0, 0, true},           {"no", 0, 0, false},           {"-", 0, 0, false},
      {"99999999999999999999", 1e20, std::numeric_limits<long long>::max(), true},
      {"-99999999999999999999", -1e20, std::numeric_limits<long long>::min(), true},
  };
  for (const auto& c : cases) {
    EXPECT_DOUBLE_EQ(zrv::doubleValueOfText(c.text), c.asDouble) << c.text;
    EXPECT_EQ(zrv::integerValueOfText(c.text), c.asInteger) << c.text;
    EXPECT_EQ(zrv::boolValueOfText(c.text), c.asBool) << c.text;
  }
}

TEST(NumericValue, JSONValuesOfEveryKind) {
  EXPECT_EQ(zrv::integerValue(ZRVJSON(3.9)), 3);
  EXPECT_EQ(zrv::integerValue(ZRVJSON(1e300)), std::numeric_limits<long long>::max());
  EXPECT_EQ(zrv::integerValue(ZRVJSON(18446744073709551615ull)), std::numeric_limits<long long>::max());
  EXPECT_EQ(zrv::integerValue(ZRVJSON("12/40")), 12);
  EXPECT_DOUBLE_EQ(zrv::doubleValue(ZRVJSON("1060.25")), 1060.25);
  EXPECT_EQ(zrv::integerValue(ZRVJSON(nullptr)), 0);
  EXPECT_EQ(zrv::integerValue(ZRVJSON::object()), 0);
  EXPECT_TRUE(zrv::boolValue(ZRVJSON(2)));
  EXPECT_FALSE(zrv::boolValue(ZRVJSON(0.0)));
  EXPECT_FALSE(zrv::boolValue(ZRVJSON::array({true})));
}
