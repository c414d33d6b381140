#include <ZRVKit/ZRVServerStatus.h>

#include <ZRVKit/ZRVHTTPClient.h>
#include <ZRVKit/ZRVHosts.h>
#include <ZRVKit/ZRVJSON.h>
#include <ZRVKit/ZRVOperationQueue.h>

#include "foundation/NumericValue.h"
#include "info/Answers.h"

namespace zrv::info {

void handleStatusAnswer(JSONAnswer answer, const ZRVServerStatus::Callback& callback) {
  if (!callback) return;
  ZRVHTTPResult& result = answer.result;
  // Whatever cannot be read counts as online: never keep players out by mistake.
  if (!result.response || result.response->statusCode != 200 || !result.body) {
    callback(true, std::move(result.error));
    return;
  }
  if (!answer.document) {
    callback(true, std::move(answer.parseFailure));
    return;
  }
  const ZRVJSON& document = *answer.document;
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
  zrv::fetchJSONDocument(
      ZRVHTTPRequest::GET(*url), zrv::info::kStatusDocument, ZRVOperationQueue::workQueue(),
      [callback = std::move(callback)](zrv::JSONAnswer answer) { zrv::info::handleStatusAnswer(std::move(answer), callback); });
}
