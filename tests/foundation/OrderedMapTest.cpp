// ZRVJSON objects: member order as first inserted, whatever is inserted, overwritten or erased, and lookups by
// name that agree with it, for small objects (searched in order) and large ones (found through the table).

#include <ZRVKit/ZRVBoundedJSON.h>
#include <ZRVKit/ZRVJSON.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

using Model = std::vector<std::pair<std::string, int>>;

std::string modelText(const Model& model) {
  ZRVJSON expected = ZRVJSON::array();
  for (const auto& [name, value] : model) expected.push_back({name, value});
  return expected.dump();
}

std::string objectText(const ZRVJSON& object) {
  ZRVJSON members = ZRVJSON::array();
  for (const auto& [name, value] : object.items()) members.push_back({name, value});
  return members.dump();
}

}  // namespace

// Random insertions, overwrites and erasures, checked against a plain list after every step. The object grows
// well past the size where it starts its table and shrinks back below it.
TEST(OrderedMap, OrderAndLookupsFollowEveryChange) {
  struct Case {
    std::string name;
    int names;       // how many different names the steps draw from
    int steps;
    int eraseEvery;  // one step in this many erases
  } cases[] = {
      {"small object", 6, 400, 3},
      {"around the table's threshold", 14, 2000, 2},
      {"large object, mostly growing", 3000, 6000, 5},
      {"large object, shrinking to nothing", 200, 4000, 1},
  };
  for (const auto& c : cases) {
    std::mt19937 random(7);
    ZRVJSON object = ZRVJSON::object();
    Model model;
    for (int step = 0; step < c.steps; ++step) {
      const std::string name = "member" + std::to_string(random() % c.names);
      auto inModel = std::find_if(model.begin(), model.end(), [&](const auto& member) { return member.first == name; });
      const int kind = static_cast<int>(random() % 4);
      if (step % c.eraseEvery == 0 && (c.eraseEvery > 1 || step % 2 == 1)) {
        const bool present = inModel != model.end();
        if (kind == 0) {
          auto found = object.find(name);
          ASSERT_EQ(found != object.end(), present) << c.name;
          if (found != object.end()) object.erase(found);
        } else {
          ASSERT_EQ(object.erase(name), present ? 1u : 0u) << c.name;
        }
        if (present) model.erase(inModel);
      } else if (kind == 0) {
        auto [where, inserted] = object.emplace(name, step);  // keeps a present member's value
        ASSERT_EQ(inserted, inModel == model.end()) << c.name;
        ASSERT_EQ(where.key(), name) << c.name;
        if (inModel == model.end()) model.emplace_back(name, step);
      } else {
        object[name] = step;  // overwrites in place
        if (inModel == model.end()) {
          model.emplace_back(name, step);
        } else {
          inModel->second = step;
        }
      }
      if (step % 25 == 0 || step == c.steps - 1) {  // a wrong order persists, so it is seen at the next check
        ASSERT_EQ(objectText(object), modelText(model)) << c.name << ", step " << step;
      }
      for (int probe = 0; probe < 3; ++probe) {
        const std::string asked = "member" + std::to_string(random() % (c.names + 2));
        auto expected = std::find_if(model.begin(), model.end(), [&](const auto& member) { return member.first == asked; });
        const ZRVJSON& constant = object;
        ASSERT_EQ(constant.contains(std::string_view(asked)), expected != model.end()) << c.name << ": " << asked;
        ASSERT_EQ(constant.count(asked.c_str()), expected != model.end() ? 1u : 0u) << c.name << ": " << asked;
        if (expected != model.end()) {
          ASSERT_EQ(constant.at(asked), expected->second) << c.name << ": " << asked;
        }
      }
    }
  }
}

// A name that comes again in one object keeps its first place and takes the last value, at any depth and
// whether or not the object is large enough for its table.
TEST(OrderedMap, RepeatedNamesInADocumentKeepTheFirstPlaceAndTheLastValue) {
  std::string manyMembers = "{";
  std::string manyExpected = "{";
  for (int i = 0; i < 20; ++i) {
    manyMembers += "\"k" + std::to_string(i) + "\":" + std::to_string(i) + ",";
    manyExpected += std::string(i ? "," : "") + "\"k" + std::to_string(i) + "\":" + (i == 3 ? "\"again\"" : std::to_string(i));
  }
  manyMembers += "\"k3\":\"again\"}";
  manyExpected += "}";
  struct Case {
    std::string text;
    std::string expected;
  } cases[] = {
      {R"({"a":1,"b":2,"a":3})", R"({"a":3,"b":2})"},
      {R"({"a":{"x":1},"b":2,"a":{"y":2}})", R"({"a":{"y":2},"b":2})"},
      {R"({"a":[1],"b":2,"a":5,"c":{"d":1,"d":{"e":2}}})", R"({"a":5,"b":2,"c":{"d":{"e":2}}})"},
      {R"({"a":{"x":1},"a":[2,{"q":1,"q":2}],"b":null})", R"({"a":[2,{"q":2}],"b":null})"},
      {R"([{"k":1,"k":2},{"z":0}])", R"([{"k":2},{"z":0}])"},
      {manyMembers, manyExpected},
  };
  for (const auto& c : cases) {
    ZRVJSONReading reading = ZRVBoundedJSON::read(c.text);
    ASSERT_TRUE(reading.document) << c.text << ": " << reading.error;
    EXPECT_EQ(reading.document->dump(), c.expected) << c.text;
    EXPECT_EQ(ZRVJSON::parse(c.text).dump(), c.expected) << c.text;  // the plain reader agrees
  }
}

TEST(OrderedMap, CopiesAndComparisonsKeepTheOrder) {
  ZRVJSON large = ZRVJSON::object();
  for (int i = 0; i < 100; ++i) large["n" + std::to_string(99 - i)] = i;
  ZRVJSON copy = large;
  copy.erase("n50");
  copy["n50"] = 49;  // back, now last
  EXPECT_EQ(copy.at("n50"), 49);
  EXPECT_EQ(large.at("n50"), 49);
  EXPECT_NE(copy, large);  // the same members in another order are another object, as before
  EXPECT_EQ(std::prev(copy.end()).key(), "n50");
  EXPECT_EQ(std::next(large.begin(), 49).key(), "n50");
  ZRVJSON moved = std::move(copy);
  EXPECT_EQ(moved.at("n0"), 99);
  EXPECT_EQ(ZRVJSON::parse(large.dump()), large);
  EXPECT_EQ(ZRVJSON({{"b", 1}, {"a", 2}, {"b", 3}}).dump(), R"({"b":1,"a":2})");  // a literal keeps the first
}
