#pragma once
// The one reader for JSON that comes from a server or from disk. Its size and its nesting depth are limited
// while it is read, so a hostile document is refused before it can exhaust memory or the stack: the reader
// itself, and everything that later copies, prints or compares a value, walks the nesting recursively.

#include <ZRVKit/ZRVJSON.h>
#include <ZRVKit/ZRVKitExport.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

/// How large and how deeply nested a document may be. No document the library reads comes near the
/// defaults; anything beyond the limits is refused as not JSON.
struct ZRVKIT_EXPORT ZRVJSONLimits {
  static constexpr std::size_t kDefaultMaxBytes = std::size_t{64} << 20;
  static constexpr int kDefaultMaxDepth = 512;

  std::size_t maxBytes = kDefaultMaxBytes;
  int maxDepth = kDefaultMaxDepth;  // arrays and objects inside each other, the outermost counting as 1
};

struct ZRVKIT_EXPORT ZRVJSONReading {
  std::optional<ZRVJSON> document;  // absent when the text is not JSON or goes beyond the limits
  std::string error;                // why the document is absent; empty when it is present
};

class ZRVKIT_EXPORT ZRVBoundedJSON {
 public:
  /// Parses `text` as one JSON value (any top level). Never throws.
  static ZRVJSONReading read(std::string_view text, const ZRVJSONLimits& limits = {});
  /// The same for raw bytes (an HTTP body, a file's contents).
  static ZRVJSONReading read(const void* bytes, std::size_t size, const ZRVJSONLimits& limits = {});
};
