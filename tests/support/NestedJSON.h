#pragma once
// Documents nested far deeper than any real one, the way a hostile server or a damaged file might send them.
// Every reader must refuse them with its usual failure for text that is not JSON, and never crash.

#include <cstddef>
#include <string>
#include <vector>

struct NestedDocument {
  std::string name;
  std::string text;
};

/// `depth` levels of `open` ("[" or "{\"a\":") around a null, closed with `close` unless `close` is empty.
inline std::string nestedJSON(std::size_t depth, const std::string& open, const std::string& close) {
  std::string text;
  text.reserve(depth * (open.size() + close.size()) + 4);
  for (std::size_t i = 0; i < depth; ++i) text += open;
  if (!close.empty()) text += "null";
  for (std::size_t i = 0; i < depth && !close.empty(); ++i) text += close;
  return text;
}

/// The deep documents no longer than `maxBytes` (a client's own size cap would refuse the longer ones anyway).
inline std::vector<NestedDocument> nestedDocuments(std::size_t maxBytes, const std::string& wrapperOpen = "",
                                                   const std::string& wrapperClose = "") {
  std::vector<NestedDocument> all = {
      {"100,000 arrays", nestedJSON(100000, "[", "]")},
      {"100,000 objects", nestedJSON(100000, "{\"a\":", "}")},
      {"1,000,000 arrays, never closed", nestedJSON(1000000, "[", "")},
      {"1,000,000 arrays", nestedJSON(1000000, "[", "]")},
      {"1,000,000 objects", nestedJSON(1000000, "{\"a\":", "}")},
      {"one level beyond the limit", nestedJSON(513, "[", "]")},
  };
  std::vector<NestedDocument> fitting;
  for (auto& document : all) {
    document.text = wrapperOpen + document.text + wrapperClose;
    if (document.text.size() <= maxBytes) fitting.push_back(std::move(document));
  }
  return fitting;
}
