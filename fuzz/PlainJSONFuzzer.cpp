// Fuzzes the quick JSON reader against nlohmann's: whatever the quick reader takes must be JSON that
// nlohmann's reader builds into the very same document (kinds of numbers and member order included).

#include "foundation/PlainJSONReader.h"
#include "tests/support/SameJSON.h"

#include <cstdint>
#include <cstdlib>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  std::optional<ZRVJSON> plain = zrv::readPlainJSON(text, zrv::kPlainJSONMaxDepth);
  if (!plain) return 0;
  ZRVJSON reference = ZRVJSON::parse(text, nullptr, false);
  if (reference.is_discarded() || !sameJSON(*plain, reference)) std::abort();
  return 0;
}
