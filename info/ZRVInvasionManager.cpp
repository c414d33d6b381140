#include <ZRVKit/ZRVInvasionManager.h>

#include <ZRVKit/ZRVBundle.h>
#include <ZRVKit/ZRVExtensions.h>
#include <ZRVKit/ZRVFormat.h>
#include <ZRVKit/ZRVHTTPClient.h>
#include <ZRVKit/ZRVHosts.h>
#include <ZRVKit/ZRVInvasionTracker.h>
#include <ZRVKit/ZRVOperationQueue.h>

#include <ZRVKit/ZRVBoundedJSON.h>

#include "foundation/NumericValue.h"
#include "info/Answers.h"
#include "info/InvasionDepartments.h"

#include <chrono>

namespace {

ZRVError invasionError(std::string message) {
  return ZRVError::library("Invasions", ZRVInvasionManager::kInvasionErrorCode, std::move(message));
}

// "<after the slash> <type> <district>" hashed, 16 digits kept and grouped 3-4-4-5. The defeated count stays
// out, so the id holds while the invasion progresses; another type or size in the district gets a new one.
std::string invasionID(const std::string& total, const std::string& type, const std::string& district) {
  std::string id = ZRVExtensions::ac_sha1(ZRVFormat("%@ %@ %@", total, type, district)).substr(0, 16);
  for (std::size_t position : {3, 8, 13}) {
    if (id.size() > position) id.insert(position, "-");
  }
  return id;
}

// The feed always sends two whole numbers; anything else is not an invasion we can show or measure.
bool isWholeNumber(std::string_view text) {
  auto first = text.find_first_not_of(' ');
  auto last = text.find_last_not_of(' ');
  if (first == std::string_view::npos) return false;
  text = text.substr(first, last - first + 1);
  if (text[0] == '-' || text[0] == '+') text.remove_prefix(1);
  return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

std::optional<ZRVJSON> invasionRecord(const std::string& district, const ZRVJSON& entry) {
  if (!entry.is_object()) return std::nullopt;
  auto type = entry.find("type");
  auto progress = entry.find("progress");
  if (type == entry.end() || !type->is_string() || progress == entry.end() || !progress->is_string()) {
    return std::nullopt;
  }
  const auto& progressText = progress->get_ref<const std::string&>();
  auto slash = progressText.find('/');
  if (slash == std::string::npos) return std::nullopt;
  std::string defeated = progressText.substr(0, slash);
  std::string total = progressText.substr(slash + 1);
  if (!isWholeNumber(defeated) || !isWholeNumber(total)) return std::nullopt;

  ZRVJSON asOf;
  auto sent = entry.find("asOf");
  if (sent != entry.end() && (sent->is_number() || sent->is_string())) {
    asOf = *sent;
  } else if (sent == entry.end() || sent->is_null()) {
    auto now = std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    asOf = ZRVFormat("%f", now);
  } else {
    return std::nullopt;
  }

  const auto& typeText = type->get_ref<const std::string&>();
  std::string id = invasionID(total, typeText, district);
  double rate = ZRVInvasionTracker::invasionTracker().defeatedRateForID(id, asOf, ZRVJSON(defeated));
  return ZRVJSON{{"district", district},
                 {"type", typeText},
                 {"suit", InvasionDepartments::gameDepartments().departmentForType(typeText)},
                 {"progress", progressText},
                 {"defeat_rate", rate},
                 {"defeated", zrv::integerValueOfText(defeated)},
                 {"total", zrv::integerValueOfText(total)},
                 {"as_of", zrv::doubleValue(asOf)},
                 {"id", id}};
}

}  // namespace

namespace zrv::info {

void handleInvasionFeed(const JSONAnswer& answer, const ZRVInvasionManager::Completion& completion) {
  const ZRVHTTPResult& result = answer.result;
  if (!result.response || result.response->statusCode != 200 || !result.body) {
    completion(false, {}, result.error);
    return;
  }
  if (!answer.document) {
    completion(true, {}, answer.parseFailure);
    return;
  }
  const ZRVJSON& feed = *answer.document;

  auto error = feed.find("error");
  if (error == feed.end() || !error->is_null()) {
    std::string message;
    if (error != feed.end()) message = error->is_string() ? error->get<std::string>() : error->dump();
    completion(true, {}, invasionError(std::move(message)));
    return;
  }

  auto invasions = feed.find("invasions");
  if (invasions == feed.end() || !invasions->is_object() || invasions->empty()) {
    completion(true, {}, invasionError(ZRVBundle::mainBundle().localizedString("INVASION_MANAGER_NO_INVASIONS", "")));
    return;
  }

  std::vector<ZRVJSON> records;
  for (const auto& [district, entry] : invasions->items()) {
    if (auto record = invasionRecord(district, entry)) records.push_back(std::move(*record));
  }
  ZRVInvasionTracker::invasionTracker().expungeForInvasions(records);
  completion(true, std::move(records), std::nullopt);
}

}  // namespace zrv::info

ZRVInvasionManager& ZRVInvasionManager::sharedManager() {
  static auto* manager = new ZRVInvasionManager();
  return *manager;
}

void ZRVInvasionManager::currentInvasions(Completion completion) {
  auto url = ZRVHosts::URL(ZRVHost::webAPI, "/api/invasions");
  if (!url) return;
  ZRVHTTPRequest request = ZRVHTTPRequest::GET(*url);
  request.headers.emplace_back("User-Agent",
                               ZRVFormat("%@.OSX.InvasionManager", ZRVBundle::mainBundle().bundleIdentifier()));
  zrv::fetchJSONDocument(
      std::move(request), zrv::info::kInvasionFeed, ZRVOperationQueue::workQueue(),
      [completion = std::move(completion)](zrv::JSONAnswer answer) {
        // The tracker is fed even when nobody listens, so that later estimates keep their baseline.
        zrv::info::handleInvasionFeed(answer, completion ? completion : [](bool, std::vector<ZRVJSON>, std::optional<ZRVError>) {});
      });
}
