#pragma once
// Estimates how fast each invasion's enemies are being defeated. The first figures the feed reports for an
// invasion are its baseline, kept until the invasion leaves the feed; every estimate is the average since then.
// When nothing can be measured the answer is 1.5 defeats per second, never 0, so that a launcher showing the
// time left never divides by zero or shows an invasion as stalled on first sight.

#include <ZRVKit/ZRVJSON.h>
#include <ZRVKit/ZRVKitExport.h>

#include <map>
#include <mutex>
#include <string>
#include <vector>

class ZRVKIT_EXPORT ZRVInvasionTracker {
 public:
  /// The rate reported whenever none can be measured.
  static constexpr double kUnmeasuredRate = 1.5;

  /// The one shared tracker, made on first use; it starts empty in every process.
  static ZRVInvasionTracker& invasionTracker();

  ZRVInvasionTracker() = default;
  ZRVInvasionTracker(const ZRVInvasionTracker&) = delete;
  ZRVInvasionTracker& operator=(const ZRVInvasionTracker&) = delete;

  /// Defeats per second of invasion `invasionID` since its first observation. `asOfTime` (seconds since 1970) and
  /// `defeated` are numbers or numeric texts, read by their leading number. The first call for an id stores
  /// both exactly as handed in and returns 1.5; so does every call whose time or count has not grown since then.
  double defeatedRateForID(const std::string& invasionID, const ZRVJSON& asOfTime, const ZRVJSON& defeated);

  /// Forgets every tracked invasion whose id is not the "id" of one of `invasions` (the feed's records).
  void expungeForInvasions(const std::vector<ZRVJSON>& invasions);

  /// A copy of the baselines: id -> {"as_of": time, "defeated": count}, both as first handed in.
  std::map<std::string, ZRVJSON> invasions() const;

 private:
  // Two overlapping feed answers may reach the tracker from two work-queue threads at once.
  mutable std::mutex mutex_;
  std::map<std::string, ZRVJSON> invasions_;
};
