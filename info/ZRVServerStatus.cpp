#include <ZRVKit/ZRVServerStatus.h>

#include <ZRVKit/ZRVBoundedJSON.h>
#include <ZRVKit/ZRVHTTPClient.h>
#include <ZRVKit/ZRVHosts.h>
#include <ZRVKit/ZRVJSON.h>
#include <ZRVKit/ZRVOperationQueue.h>

#include "foundation/NumericValue.h"
#include "info/Answers.h"

namespace {

// The status document is tiny; a larger answer is not one.
constexpr std::size_t kMaxStatusDocumentSize = 1 << 20;

ZRVError parseError(const std::string& what) {
  return ZRVError("ZRVJSONErrorDomain", 3840,
                  {{std::string(ZRVError::kLocalizedDescriptionKey), "The data is not valid JSON: " + what}});
}

}  // namespace

namespace zrv::info {

void handleStatusAnswer(ZRVHTTPResult result, const ZRVServerStatus::Callback& callback) {
  if (!callback) return;
  // Whatever cannot be read counts as online: never keep players out by mistake.
  if (!result.response || result.response->statusCode != 200 || !result.body) {
    callback(true, std::move(result.error));
    return;
  }
  ZRVJSONReading reading = ZRVBoundedJSON::read(result.body->data(), result.body->size());
  if (!reading.document) {
    callback(true, parseError(reading.error));
    return;
  }
  const ZRVJSON& document = *reading.document;
  if (!document.is_object()) {
    callback(true, parseError("the status document is not a JSON object"));
    return;
  }
  auto member = document.find("online");
  bool online = member != document.end() && zrv::boolValue(*member);
  callback(online, std::move(result.error));
}

}  // namespace zrv::info

ZRVServerStatus& ZRVServerStatus::currentStatus() {
  static auto* status = new ZRVServerStatus();
  return *status;
}

void ZRVServerStatus::getServerStatus(Callback callback) {
  auto url = ZRVHosts::URL(ZRVHost::webAPI, "/api/status");
  if (!url) return;
  ZRVHTTPRequest request = ZRVHTTPRequest::GET(*url);
  request.maxBodySize = kMaxStatusDocumentSize;
  ZRVHTTPClient::sharedClient().sendAsynchronousRequest(
      std::move(request), ZRVOperationQueue::workQueue(),
      [callback = std::move(callback)](ZRVHTTPResult result) { zrv::info::handleStatusAnswer(std::move(result), callback); });
}
