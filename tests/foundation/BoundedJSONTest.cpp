#include <ZRVKit/ZRVBoundedJSON.h>

#include "support/NestedJSON.h"

#include <gtest/gtest.h>

TEST(BoundedJSON, DepthAndSizeAreLimitedWhileReading) {
  struct Case {
    std::string name;
    std::string text;
    ZRVJSONLimits limits;
    bool read;
    std::string errorHas;
  } cases[] = {
      {"512 arrays", nestedJSON(512, "[", "]"), {}, true, ""},
      {"513 arrays", nestedJSON(513, "[", "]"), {}, false, "nested deeper than 512 levels"},
      {"512 objects", nestedJSON(512, "{\"a\":", "}"), {}, true, ""},
      {"a million arrays", nestedJSON(1000000, "[", "]"), {}, false, "nested deeper"},
      {"a million objects, never closed", nestedJSON(1000000, "{\"a\":", ""), {}, false, "nested deeper"},
      {"brackets inside a text do not count", "[\"" + std::string(100000, '[') + "\"]", {}, true, ""},
      {"a smaller depth limit", "[[[1]]]", {1024, 2}, false, "nested deeper than 2 levels"},
      {"exactly the size limit", "[1, 2]", {6, 8}, true, ""},
      {"one byte beyond the size limit", "[1, 2] ", {6, 8}, false, "larger than 6 bytes"},
      {"any top level", "\"text\"", {}, true, ""},
      {"not JSON", "<html>", {}, false, "parse error"},
      {"empty", "", {}, false, "parse error"},
      {"trailing garbage", "{} x", {}, false, "parse error"},
  };
  for (const auto& c : cases) {
    ZRVJSONReading reading = ZRVBoundedJSON::read(c.text, c.limits);
    EXPECT_EQ(reading.document.has_value(), c.read) << c.name;
    EXPECT_NE(reading.error.find(c.errorHas), std::string::npos) << c.name << ": " << reading.error;
    if (c.read) {
      EXPECT_TRUE(reading.error.empty()) << c.name;
    }
  }
}

TEST(BoundedJSON, ADocumentAtTheLimitCanBeCopiedPrintedAndDestroyed) {
  ZRVJSONReading reading = ZRVBoundedJSON::read(nestedJSON(ZRVJSONLimits::kDefaultMaxDepth, "{\"a\":", "}"));
  ASSERT_TRUE(reading.document);
  ZRVJSON copy = *reading.document;
  EXPECT_EQ(copy.dump().size(), ZRVJSONLimits::kDefaultMaxDepth * 6u + 4);
  EXPECT_EQ(copy, *reading.document);
}
