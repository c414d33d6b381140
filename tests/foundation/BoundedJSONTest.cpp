#include <ZRVKit/ZRVBoundedJSON.h>

#include "foundation/PlainJSONReader.h"
#include "support/NestedJSON.h"
#include "support/SameJSON.h"

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

// The quick reader takes plain documents on itself and must build exactly what nlohmann's reader builds; it
// must give up on everything else, whether nlohmann's reader takes it (then that reader's document counts) or not.
TEST(BoundedJSON, TheQuickReaderBuildsWhatNlohmannBuildsOrGivesUp) {
  const struct {
    std::string text;
    bool plain;
  } cases[] = {
      {R"({"b": 1, "a": [true, false, null, -0, 0, 123456789012345678, -7], "a": {}, "c": []})", true},
      {"{\"s\": \"q\\\" b\\\\ s\\/ \\b\\f\\n\\r\\t end\", \"e\": \"\"}", true},
      {" \r\n\t[ ]\n", true},
      {R"({"x": {"y": {"z": 1, "w": [{"v": 2}, {}]}, "u": 3}, "t": {"s": "r"}})", true},
      {"\"top\"", true},
      {"-12", true},
      {nestedJSON(64, "[", "]"), true},
      // JSON, but not plain: left to nlohmann's reader
      {"1.5", false},
      {"[1e3]", false},
      {"1234567890123456789", false},
      {R"(["\u00e9"])", false},
      {"[\"\xc3\xa9\"]", false},
      {"\xef\xbb\xbf{}", false},
      {nestedJSON(65, "[", "]"), false},
      // not JSON
      {"[1,]", false},
      {R"({"a" 1})", false},
      {"[01]", false},
      {"-", false},
      {"[\"\x01\"]", false},
      {"[tru]", false},
      {"{} x", false},
      {"", false},
      {"[", false},
      {"\"open", false},
      {"[\"\\x\"]", false},
  };
  for (const auto& c : cases) {
    std::optional<ZRVJSON> plain = zrv::readPlainJSON(c.text, ZRVJSONLimits::kDefaultMaxDepth);
    ASSERT_EQ(plain.has_value(), c.plain) << c.text;
    if (!plain) continue;
    ZRVJSON reference = ZRVJSON::parse(c.text, nullptr, false);
    EXPECT_TRUE(sameJSON(*plain, reference)) << c.text << " read as " << plain->dump();
  }
}
