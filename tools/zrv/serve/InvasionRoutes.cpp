// /api/invasions: a few invasions that move on by half a minute of game time at every request, so that a
// launcher polling twice sees the same invasions with measured defeat rates.

#include "serve/Routes.h"

#include <ZRVKit/ZRVJSON.h>

#include <httplib.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <mutex>

namespace {

struct DemoInvasion {
  const char* district;
  const char* type;
  long long total;
  long long defeatedAtStart;
  double defeatsPerSecond;
};

constexpr DemoInvasion kInvasions[] = {
    {"Gullhaven", "Quill-snapper", 5000, 1200, 2.5},
    {"Brinemarket", "Dr. Barnacle", 3000, 400, 1.2},
    {"Old Pier", "Wave\x03" "breaker", 8000, 7100, 3.0},
    {"Saltmarsh Row", "Kelp & Co.", 1500, 90, 0.8},
};

// Game time advanced per request.
constexpr long long kSecondsPerRequest = 30;

struct FeedClock {
  std::mutex mutex;
  long long start = std::chrono::duration_cast<std::chrono::seconds>(
                        std::chrono::system_clock::now().time_since_epoch()).count();
  long long requests = 0;
};

}  // namespace

void registerInvasionRoutes(httplib::Server& server, DemoState&) {
  auto clock = std::make_shared<FeedClock>();
  server.Get("/api/invasions", [clock](const httplib::Request&, httplib::Response& response) {
    long long elapsed;
    {
      std::lock_guard lock(clock->mutex);
      elapsed = kSecondsPerRequest * clock->requests++;
    }
    ZRVJSON invasions = ZRVJSON::object();
    for (const DemoInvasion& invasion : kInvasions) {
      auto defeated = std::min(invasion.total, invasion.defeatedAtStart +
                                                   static_cast<long long>(invasion.defeatsPerSecond * double(elapsed)));
      invasions[invasion.district] = {{"type", invasion.type},
                                      {"progress", std::to_string(defeated) + "/" + std::to_string(invasion.total)},
                                      {"asOf", clock->start + elapsed}};
    }
    ZRVJSON feed = {{"error", nullptr}, {"invasions", std::move(invasions)}};
    response.set_content(feed.dump(), "application/json");
  });
}
