#pragma once
// What the information clients make of a server's answer, apart from the request that fetched it: the pieces
// that read outside input, callable on their own (the fuzz targets feed them directly).

#include <ZRVKit/ZRVHTTPResponse.h>
#include <ZRVKit/ZRVInvasionManager.h>
#include <ZRVKit/ZRVServerStatus.h>

#include "foundation/JSONDocumentFetch.h"

namespace zrv::info {

/// The real feed is a few kilobytes; the cap also keeps the parse of a hostile object with countless members
/// short.
inline constexpr JSONDocumentSpec kInvasionFeed{256 * 1024, JSONTopLevel::object, "the invasion feed is not a JSON object"};

/// The status document is tiny; a larger answer is not one.
inline constexpr JSONDocumentSpec kStatusDocument{1 << 20, JSONTopLevel::object, "the status document is not a JSON object"};

/// Makes what it can of the invasion feed's answer and calls `completion` once, on the calling thread.
void handleInvasionFeed(const JSONAnswer& answer, const ZRVInvasionManager::Completion& completion);

/// Makes what it can of the status answer and calls `callback` once, on the calling thread.
void handleStatusAnswer(JSONAnswer answer, const ZRVServerStatus::Callback& callback);

}  // namespace zrv::info
