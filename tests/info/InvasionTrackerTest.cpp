#include <ZRVKit/ZRVInvasionTracker.h>

#include <gtest/gtest.h>

#include <thread>

TEST(InvasionTracker, RatesAreMeasuredFromTheFirstObservation) {
  ZRVInvasionTracker tracker;
  struct Step {
    ZRVJSON time;
    ZRVJSON defeated;
    double rate;
  } steps[] = {
      {1000, 10, 1.5},       // first sighting
      {1000, 50, 1.5},       // no time elapsed
      {900, 50, 1.5},        // clock ran backwards
      {1060, 10, 1.5},       // no progress
      {1060, 5, 1.5},        // fewer defeated than at first
      {1060, 40, 0.5},       //
      {"1120", "70", 0.5},   // from the baseline, not from the previous call; texts read as numbers
      {1120.0, "70/90", 0.5},
  };
  for (const auto& step : steps) {
    EXPECT_DOUBLE_EQ(tracker.defeatedRateForID("a1b-2c3d-4e5f-6a7b8", step.time, step.defeated), step.rate)
        << step.time << " " << step.defeated;
  }
  // The baseline is kept exactly as first handed in.
  EXPECT_EQ(tracker.invasions().at("a1b-2c3d-4e5f-6a7b8"), (ZRVJSON{{"as_of", 1000}, {"defeated", 10}}));
}

TEST(InvasionTracker, ExpungingKeepsOnlyInvasionsStillInTheFeed) {
  ZRVInvasionTracker tracker;
  for (const char* id : {"one", "two", "three"}) tracker.defeatedRateForID(id, 1000, 1);

  tracker.expungeForInvasions({{{"id", "one"}}, {{"id", "two"}}, {{"id", "three"}}, {{"id", "two"}}});
  EXPECT_EQ(tracker.invasions().size(), 3u);

  tracker.expungeForInvasions({{{"id", "two"}}, {{"district", "no id"}}, ZRVJSON("not a record")});
  auto remaining = tracker.invasions();
  ASSERT_EQ(remaining.size(), 1u);
  EXPECT_TRUE(remaining.count("two"));

  tracker.expungeForInvasions({});
  EXPECT_TRUE(tracker.invasions().empty());

  // A returning invasion starts from a new baseline.
  EXPECT_EQ(tracker.defeatedRateForID("two", 2000, 500), 1.5);
}

TEST(InvasionTracker, OverlappingFeedAnswersAreSafe) {
  ZRVInvasionTracker tracker;
  auto feed = [&tracker](int offset) {
    for (int poll = 0; poll < 2000; ++poll) {
      std::vector<ZRVJSON> records;
      for (int i = 0; i < 8; ++i) {
        std::string id = "invasion-" + std::to_string((i + offset + poll / 100) % 12);
        double rate = tracker.defeatedRateForID(id, 1000 + poll, 10 * poll);
        EXPECT_GT(rate, 0);
        records.push_back({{"id", id}});
      }
      tracker.expungeForInvasions(records);
      EXPECT_LE(tracker.invasions().size(), 12u);
    }
  };
  std::thread first(feed, 0);
  std::thread second(feed, 5);
  first.join();
  second.join();
}
