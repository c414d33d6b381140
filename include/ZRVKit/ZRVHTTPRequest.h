#pragma once
// One HTTP request: a GET or a form POST, with the idle time-out and the body cap that guard the client.

#include <ZRVKit/ZRVData.h>
#include <ZRVKit/ZRVKitExport.h>
#include <ZRVKit/ZRVURL.h>

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

struct ZRVKIT_EXPORT ZRVHTTPRequest {
  /// Answers above this size fail as transport errors unless a request sets its own cap.
  static constexpr std::size_t kDefaultMaxBodySize = std::size_t{4} << 30;
  /// The platform's request time-out: the request fails when no byte moves for this long.
  static constexpr std::chrono::milliseconds kDefaultIdleTimeout{60'000};

  ZRVURL url;
  std::string method = "GET";
  std::vector<std::pair<std::string, std::string>> headers;
  ZRVData body;
  std::chrono::milliseconds idleTimeout = kDefaultIdleTimeout;
  bool followRedirects = true;
  std::size_t maxBodySize = kDefaultMaxBodySize;
  /// When set (an open descriptor), the body is written there as it arrives, from the descriptor's offset,
  /// instead of being held: the result's `body` is then empty and its `bodyLength` counts the bytes written.
  /// `maxBodySize` still applies. The descriptor stays the caller's and must stay open until the result.
  int bodyDescriptor = -1;

  /// A GET of `url` that ignores any local cache.
  static ZRVHTTPRequest GET(ZRVURL url);
  /// A POST of a form-encoded body with "Content-Length" and "Content-Type" headers.
  static ZRVHTTPRequest formPOST(ZRVURL url, std::string_view body);
};
