#pragma once
// The head of an HTTP answer: its status code and headers.

#include <ZRVKit/ZRVData.h>
#include <ZRVKit/ZRVError.h>
#include <ZRVKit/ZRVKitExport.h>
#include <ZRVKit/ZRVURL.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

struct ZRVKIT_EXPORT ZRVHTTPResponse {
  long statusCode = 0;
  std::vector<std::pair<std::string, std::string>> headers;
  ZRVURL url;

  /// The first header of that name (compared without regard to case).
  std::optional<std::string> header(std::string_view name) const;
};

/// What an HTTP exchange produced. `body` is absent exactly when the transfer failed; then `error` says why.
struct ZRVKIT_EXPORT ZRVHTTPResult {
  std::optional<ZRVHTTPResponse> response;
  std::optional<ZRVData> body;
  /// The body's length in bytes, also when it went to the request's `bodyDescriptor` rather than into `body`.
  std::uint64_t bodyLength = 0;
  std::optional<ZRVError> error;
};
