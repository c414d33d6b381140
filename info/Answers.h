#pragma once
// What the information clients make of a server's answer, apart from the request that fetched it: the pieces
// that read outside input, callable on their own (the fuzz targets feed them directly).

#include <ZRVKit/ZRVHTTPResponse.h>
#include <ZRVKit/ZRVInvasionManager.h>
#include <ZRVKit/ZRVServerStatus.h>

namespace zrv::info {

/// Reads the invasion feed's answer and calls `completion` once, on the calling thread.
void handleInvasionFeed(const ZRVHTTPResult& result, const ZRVInvasionManager::Completion& completion);

/// Reads the status answer and calls `callback` once, on the calling thread.
void handleStatusAnswer(ZRVHTTPResult result, const ZRVServerStatus::Callback& callback);

}  // namespace zrv::info
