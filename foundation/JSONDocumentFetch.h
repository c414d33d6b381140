#pragma once
// Getting a JSON document from a server, the one way every client does it: a GET whose answer is capped, the
// body read with ZRVBoundedJSON within the same cap, and, for a body that is not the document the client
// expects, the failure the platform's JSON reader gives.

#include <ZRVKit/ZRVError.h>
#include <ZRVKit/ZRVHTTPClient.h>
#include <ZRVKit/ZRVJSON.h>

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

class ZRVOperationQueue;

namespace zrv {

/// The failure for text that is not the expected JSON: domain "ZRVJSONErrorDomain", code 3840, and
/// "The data is not valid JSON: <what>" as its description.
ZRVError jsonParseError(const std::string& what);

/// The top level a client accepts.
enum class JSONTopLevel { object, objectOrArray };

/// The document a client expects: at most `maxBytes` (the answer's cap as well), of the given top level.
struct JSONDocumentSpec {
  std::size_t maxBytes;
  JSONTopLevel topLevel;
  std::string_view wrongTopLevel;  // the failure's text when the top level differs (a literal: it is kept)
};

/// An answer with its body read. The transfer's own outcome stays in `result` (its body too), so each client
/// still decides what a status or a transfer error means to it.
struct JSONAnswer {
  ZRVHTTPResult result;
  std::optional<ZRVJSON> document;      // the body as the expected document
  std::optional<ZRVError> parseFailure;  // set when a body arrived that is not that document
};

/// Reads `result`'s body as `spec` describes, whatever its status.
JSONAnswer readJSONAnswer(ZRVHTTPResult result, const JSONDocumentSpec& spec);

/// Sends `request` (normally a GET) with its answer capped at `spec.maxBytes`, reads the answer as above and
/// calls `completion` on `queue`.
void fetchJSONDocument(ZRVHTTPRequest request, const JSONDocumentSpec& spec, ZRVOperationQueue& queue,
                       std::function<void(JSONAnswer)> completion);

}  // namespace zrv
