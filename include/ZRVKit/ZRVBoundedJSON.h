#pragma once
// The one reader for JSON that comes from a server or from disk. Its size and its nesting depth are limited
// while it is read, so a hostile document is refused before it can exhaust memory or the stack: the reader
// itself, and everything that later copies, prints or compares a value, walks the nesting recursively.

#include <ZRVKit/ZRVJSON.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace zrv {

/// No document the library reads comes near these; anything beyond them is refused as not JSON.
inline constexpr std::size_t kDefaultMaxJSONBytes = std::size_t{64} << 20;
inline constexpr int kDefaultMaxJSONDepth = 512;

struct JSONLimits {
  std::size_t maxBytes = kDefaultMaxJSONBytes;
  int maxDepth = kDefaultMaxJSONDepth;  // arrays and objects inside each other, the outermost counting as 1
};

struct JSONReading {
  std::optional<ZRVJSON> document;  // absent when the text is not JSON or goes beyond the limits
  std::string error;                // why the document is absent; empty when it is present
};

/// Parses `text` as one JSON value (any top level). Never throws.
JSONReading readBoundedJSON(std::string_view text, const JSONLimits& limits = {});

/// The same for raw bytes (an HTTP body, a file's contents).
JSONReading readBoundedJSON(const void* bytes, std::size_t size, const JSONLimits& limits = {});

}  // namespace zrv
