#pragma once
// A quick reader for the plain JSON that nearly every document the library reads is made of: ASCII text with
// the one-letter escapes, whole numbers of up to 18 digits, true, false, null, arrays and objects. It builds
// the document directly, as nlohmann's reader would build it from the same text, and gives up (no document)
// at the first thing it is not sure of: another escape or non-ASCII text, a fraction or exponent, a longer
// number, a byte order mark, deep nesting, or anything that is not JSON at all. The caller then reads the
// text with nlohmann's reader, whose outcome (and error text) is the one that counts.

#include <ZRVKit/ZRVJSON.h>

#include <optional>
#include <string_view>

namespace zrv {

/// Nesting the quick reader takes on itself: it recurses, and deeper documents are rare enough to leave to
/// nlohmann's reader, which keeps its own stack.
constexpr int kPlainJSONMaxDepth = 64;

/// The document `text` holds, when it is plain JSON nested at most `maxDepth` levels; none otherwise.
std::optional<ZRVJSON> readPlainJSON(std::string_view text, int maxDepth);

}  // namespace zrv
