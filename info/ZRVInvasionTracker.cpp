#include <ZRVKit/ZRVInvasionTracker.h>

#include "foundation/NumericValue.h"

#include <unordered_set>

ZRVInvasionTracker& ZRVInvasionTracker::invasionTracker() {
  static auto* tracker = new ZRVInvasionTracker();
  return *tracker;
}

double ZRVInvasionTracker::defeatedRateForID(const std::string& invasionID, const ZRVJSON& asOfTime,
                                             const ZRVJSON& defeated) {
  std::lock_guard lock(mutex_);
  auto tracked = invasions_.find(invasionID);
  if (tracked == invasions_.end()) {
    invasions_.emplace(invasionID, ZRVJSON{{"as_of", asOfTime}, {"defeated", defeated}});
    return kUnmeasuredRate;
  }
  // Always measured from the first observation, so the rate is the average since the invasion was first seen.
  double t0 = zrv::doubleValue(tracked->second["as_of"]);
  double t = zrv::doubleValue(asOfTime);
  if (!(t > t0)) return kUnmeasuredRate;
  long long d0 = zrv::integerValue(tracked->second["defeated"]);
  long long d = zrv::integerValue(defeated);
  if (d <= d0) return kUnmeasuredRate;
  // Subtracting as doubles cannot overflow, whatever the feed sent.
  return (static_cast<double>(d) - static_cast<double>(d0)) / (t - t0);
}

void ZRVInvasionTracker::expungeForInvasions(const std::vector<ZRVJSON>& invasions) {
  std::unordered_set<std::string> current;
  for (const ZRVJSON& record : invasions) {
    auto id = record.find("id");
    if (id != record.end() && id->is_string()) current.insert(id->get<std::string>());
  }
  std::lock_guard lock(mutex_);
  std::erase_if(invasions_, [&](const auto& entry) { return !current.count(entry.first); });
}

std::map<std::string, ZRVJSON> ZRVInvasionTracker::invasions() const {
  std::lock_guard lock(mutex_);
  return invasions_;
}
