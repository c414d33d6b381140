#pragma once
// The invasions under way in the game world, from the web API's invasion feed, as flat records:
//
//   "district"     text    the district, as the feed names it
//   "type"         text    the invading enemy type, spelled as the feed spells it
//   "suit"         text    the department of that type ("Northwing" when the type is unknown)
//   "progress"     text    the feed's "defeated/total" text, unchanged
//   "defeat_rate"  double  defeats per second since this invasion was first seen (ZRVInvasionTracker), or 1.5
//   "defeated"     integer the count before the "/"
//   "total"        integer the count after the "/"
//   "as_of"        double  the feed's time of the figures, seconds since 1970 (the local time when it sent none)
//   "id"           text    19 characters, stable while the invasion progresses (see currentInvasions)

#include <ZRVKit/ZRVError.h>
#include <ZRVKit/ZRVJSON.h>
#include <ZRVKit/ZRVKitExport.h>

#include <functional>
#include <optional>
#include <vector>

class ZRVKIT_EXPORT ZRVInvasionManager {
 public:
  using Completion = std::function<void(bool reached, std::vector<ZRVJSON> invasions, std::optional<ZRVError> error)>;

  /// Code of the "Invasions" error: the feed reported an error, or there are no invasions right now.
  static constexpr long kInvasionErrorCode = 6;

  /// The one shared instance, made on first use.
  static ZRVInvasionManager& sharedManager();

  /// Asks "/api/invasions" and returns at once. `completion` runs once on a work-queue thread:
  ///  - (false, [], transport error or none) when no 200 answer arrived;
  ///  - (true, [], parse error) when the answer is not a JSON object;
  ///  - (true, [], "Invasions" error 6) when the feed's "error" is not null (its text, or "" when the member is
  ///    missing) or when it lists no invasions (the main bundle's "INVASION_MANAGER_NO_INVASIONS" text);
  ///  - (true, records, none) otherwise, in the feed's order. Entries that are not objects, lack a "type" or
  ///    "progress" text, have a progress that is not two whole numbers around a "/", or an "asOf" that is
  ///    neither a number nor a text are left out (a null "asOf" counts as none: the local time is used).
  /// An invasion's id is made of its total, type and district, not of its defeated count, so that it stays
  /// the same while the invasion progresses and the tracker can measure its rate.
  void currentInvasions(Completion completion);

  ZRVInvasionManager(const ZRVInvasionManager&) = delete;
  ZRVInvasionManager& operator=(const ZRVInvasionManager&) = delete;

 private:
  ZRVInvasionManager() = default;
};
