// zrv invasions: the invasions under way, with their departments, defeat rates and the time they have left.

#include "Arguments.h"
#include "Verbs.h"
#include <ZRVKit/ZRVBoundedJSON.h>

#include <ZRVKit/ZRVBundle.h>
#include <ZRVKit/ZRVInvasionManager.h>
#include <ZRVKit/ZRVInvasionTracker.h>
#include <ZRVKit/ZRVJSON.h>
#include <ZRVKit/ZRVMainQueue.h>

#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>

namespace {

namespace fs = std::filesystem;

// The tracker lives as long as its process, and each zrv run is one poll. zrv keeps the tracker's baselines
// between runs, so that the second run already shows measured rates.
std::optional<fs::path> baselineFile() {
  const char* cache = std::getenv("XDG_CACHE_HOME");
  if (cache && *cache == '/') return fs::path(cache) / "zrv" / "invasion-baselines.json";
  const char* home = std::getenv("HOME");
  if (home && *home == '/') return fs::path(home) / ".cache" / "zrv" / "invasion-baselines.json";
  return std::nullopt;
}

void restoreBaselines(const fs::path& file) {
  constexpr std::uintmax_t kMaxSize = 1 << 20;
  std::error_code error;
  if (!fs::is_regular_file(file, error) || fs::file_size(file, error) > kMaxSize) return;
  std::ifstream stream(file, std::ios::binary);
  std::stringstream text;
  text << stream.rdbuf();
  ZRVJSON baselines = ZRVBoundedJSON::read(text.str()).document.value_or(nullptr);
  if (!baselines.is_object()) return;
  for (const auto& [id, baseline] : baselines.items()) {
    if (baseline.is_object() && baseline.contains("as_of") && baseline.contains("defeated")) {
      ZRVInvasionTracker::invasionTracker().defeatedRateForID(id, baseline["as_of"], baseline["defeated"]);
    }
  }
}

void keepBaselines(const fs::path& file) {
  ZRVJSON baselines = ZRVJSON::object();
  for (const auto& [id, baseline] : ZRVInvasionTracker::invasionTracker().invasions()) baselines[id] = baseline;
  std::error_code error;
  fs::create_directories(file.parent_path(), error);
  fs::path temporary = file;
  temporary += "." + std::to_string(::getpid());
  {
    std::ofstream stream(temporary, std::ios::binary | std::ios::trunc);
    stream << baselines.dump() << "\n";
    if (!stream.flush()) {
      fs::remove(temporary, error);
      return;
    }
  }
  fs::rename(temporary, file, error);
  if (error) fs::remove(temporary, error);
}

// "45s", "12m 30s", "3h 05m".
std::string timeLeft(const ZRVJSON& record) {
  double rate = record.value("defeat_rate", 0.0);
  double left = static_cast<double>(record.value("total", 0LL) - record.value("defeated", 0LL));
  if (left <= 0) return "done";
  if (!(rate > 0) || !std::isfinite(left / rate) || left / rate > 1e9) return "-";
  long long seconds = std::llround(left / rate);
  char text[32];
  if (seconds < 60) {
    std::snprintf(text, sizeof text, "%llds", seconds);
  } else if (seconds < 3600) {
    std::snprintf(text, sizeof text, "%lldm %02llds", seconds / 60, seconds % 60);
  } else {
    std::snprintf(text, sizeof text, "%lldh %02lldm", seconds / 3600, seconds % 3600 / 60);
  }
  return text;
}

// Feed texts may hold control characters (the U+0003 joiner of compound names): show them as ^C.
std::string printable(const std::string& text) {
  std::string shown;
  for (char c : text) {
    auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7f) {
      shown += '^';
      shown += static_cast<char>(byte ^ 0x40);
    } else {
      shown += c;
    }
  }
  return shown;
}

std::size_t displayWidth(const std::string& text) {
  std::size_t width = 0;
  for (char c : text) width += (static_cast<unsigned char>(c) & 0xC0) != 0x80;
  return width;
}

void printTable(const std::vector<ZRVJSON>& invasions) {
  std::vector<std::vector<std::string>> rows = {
      {"DISTRICT", "TYPE", "DEPARTMENT", "PROGRESS", "RATE/S", "TIME LEFT", "ID"}};
  for (const ZRVJSON& record : invasions) {
    char rate[32];
    std::snprintf(rate, sizeof rate, "%.2f", record.value("defeat_rate", 0.0));
    rows.push_back({printable(record.value("district", "")), printable(record.value("type", "")),
                    record.value("suit", ""), printable(record.value("progress", "")), rate, timeLeft(record),
                    record.value("id", "")});
  }
  std::vector<std::size_t> widths(rows[0].size(), 0);
  for (const auto& row : rows) {
    for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], displayWidth(row[i]));
  }
  for (const auto& row : rows) {
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i) {
      line += row[i];
      if (i + 1 < row.size()) line += std::string(widths[i] - displayWidth(row[i]) + 2, ' ');
    }
    std::cout << line << "\n";
  }
}

}  // namespace

int runInvasions(const std::vector<std::string>& words) {
  Arguments arguments(words, {"--json", "--fresh"}, {});
  arguments.expectPositional(0, 0);
  auto baselines = baselineFile();
  if (baselines && !arguments.flag("--fresh")) restoreBaselines(*baselines);

  // The feed's "no invasions" answer carries the launcher's own text; zrv uses the library's.
  const std::string noInvasions = ZRVBundle::libraryBundle().localizedString("INVASION_MANAGER_NO_INVASIONS");
  ZRVBundle::mainBundle().setBuiltInTable("Localizable", "en",
                                          ZRVJSON{{"INVASION_MANAGER_NO_INVASIONS", noInvasions}}.dump());

  bool done = false;
  bool reached = false;
  std::vector<ZRVJSON> invasions;
  std::optional<ZRVError> error;
  ZRVInvasionManager::sharedManager().currentInvasions(
      [&](bool wasReached, std::vector<ZRVJSON> records, std::optional<ZRVError> failure) {
        ZRVOperationQueue::mainQueue().addOperationWithBlock(
            [&, wasReached, records = std::move(records), failure = std::move(failure)]() mutable {
              reached = wasReached;
              invasions = std::move(records);
              error = std::move(failure);
              done = true;
            });
      });
  ZRVOperationQueue::mainQueue().runUntil([&] { return done; });
  if (baselines && reached && !error) keepBaselines(*baselines);

  const bool json = arguments.flag("--json");
  // With --json a failure is a document too: {"error": "why", "reached": true|false}.
  auto failed = [json](const std::string& why, bool wasReached) {
    if (json) std::cout << ZRVJSON{{"error", why}, {"reached", wasReached}}.dump(2) << "\n";
    std::cerr << "zrv invasions: " << why << "\n";
  };
  if (!reached) {
    failed("the invasion feed could not be reached" +
               (error ? ": " + error->localizedDescription() : std::string(" (no answer 200)")),
           false);
    return kExitUnreachable;
  }
  bool none = error && error->domain() == ZRVError::libraryDomain("Invasions") &&
              error->userInfo().value(std::string(ZRVError::kMessageKey), "") == noInvasions;
  if (error && !none) {
    std::string message = error->userInfo().value(std::string(ZRVError::kMessageKey), "");
    if (message.empty()) message = error->localizedDescription();
    failed("the invasion feed reported an error: " + message, true);
    return kExitFailure;
  }
  if (json) {
    std::cout << ZRVJSON(invasions).dump(2) << "\n";
  } else if (invasions.empty()) {
    std::cout << (noInvasions.empty() ? "There are no invasions right now." : noInvasions) << "\n";
  } else {
    printTable(invasions);
  }
  return kExitSuccess;
}
