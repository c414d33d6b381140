#include "foundation/JSONDocumentFetch.h"

#include <ZRVKit/ZRVBoundedJSON.h>

namespace zrv {

ZRVError jsonParseError(const std::string& what) {
  return ZRVError("ZRVJSONErrorDomain", 3840,
                  {{std::string(ZRVError::kLocalizedDescriptionKey), "The data is not valid JSON: " + what}});
}

JSONAnswer readJSONAnswer(ZRVHTTPResult result, const JSONDocumentSpec& spec) {
  JSONAnswer answer{std::move(result), std::nullopt, std::nullopt};
  if (!answer.result.body) return answer;
  const ZRVData& body = *answer.result.body;
  ZRVJSONReading reading = ZRVBoundedJSON::read(body.data(), body.size(), {spec.maxBytes});
  if (!reading.document) {
    answer.parseFailure = jsonParseError(reading.error);
    return answer;
  }
  const bool expected = spec.topLevel == JSONTopLevel::object
                            ? reading.document->is_object()
                            : reading.document->is_object() || reading.document->is_array();
  if (!expected) {
    answer.parseFailure = jsonParseError(std::string(spec.wrongTopLevel));
    return answer;
  }
  answer.document = std::move(reading.document);
  return answer;
}

void fetchJSONDocument(ZRVHTTPRequest request, const JSONDocumentSpec& spec, ZRVOperationQueue& queue,
                       std::function<void(JSONAnswer)> completion) {
  request.maxBodySize = spec.maxBytes;
  ZRVHTTPClient::sharedClient().sendAsynchronousRequest(
      std::move(request), queue, [spec, completion = std::move(completion)](ZRVHTTPResult result) {
        if (completion) completion(readJSONAnswer(std::move(result), spec));
      });
}

}  // namespace zrv
