#include <ZRVKit/ZRVServerStatus.h>

#include <ZRVKit/ZRVHTTPClient.h>
#include <ZRVKit/ZRVHosts.h>
#include <ZRVKit/ZRVJSON.h>
#include <ZRVKit/ZRVOperationQueue.h>

namespace {

// The status document is tiny; a larger answer is not one.
constexpr std::size_t kMaxStatusDocumentSize = 1 << 20;

// A member's truth reading: booleans as they are, numbers when not zero, strings like "true" or "1".
bool truthValue(const ZRVJSON& value) {
  if (value.is_boolean()) return value.get<bool>();
  if (value.is_number()) return value.get<double>() != 0;
  if (value.is_string()) {
    const auto& text = value.get_ref<const std::string&>();
    return text == "true" || text == "TRUE" || text == "yes" || text == "YES" || text == "Y" || text == "y" ||
           (!text.empty() && text.find_first_not_of("0123456789") == std::string::npos &&
            text.find_first_not_of('0') != std::string::npos);
  }
  return false;
}

ZRVError parseError(const std::string& what) {
  return ZRVError("ZRVJSONErrorDomain", 3840,
                  {{std::string(ZRVError::kLocalizedDescriptionKey), "The data is not valid JSON: " + what}});
}

}  // namespace

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
      std::move(request), ZRVOperationQueue::workQueue(), [callback = std::move(callback)](ZRVHTTPResult result) {
        if (!callback) return;
        // Whatever cannot be read counts as online: never keep players out by mistake.
        if (!result.response || result.response->statusCode != 200 || !result.body) {
          callback(true, std::move(result.error));
          return;
        }
        ZRVJSON document;
        try {
          document = ZRVJSON::parse(result.body->begin(), result.body->end());
        } catch (const ZRVJSON::parse_error& error) {
          callback(true, parseError(error.what()));
          return;
        }
        if (!document.is_object()) {
          callback(true, parseError("the status document is not a JSON object"));
          return;
        }
        auto member = document.find("online");
        bool online = member != document.end() && truthValue(*member);
        callback(online, std::move(result.error));
      });
}
