// Fuzzes percent decoding and URL forming: the input split at its first NUL into a URL text and a path
// component. Decoding and forming may refuse, never crash; what decodes re-encodes to something that
// decodes back to it.

#include <ZRVKit/ZRVURL.h>

#include "FuzzSupport.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view input = fuzz::text(data, size);
  std::size_t split = input.find('\0');
  std::string_view base = input.substr(0, split);
  std::string_view component = split == std::string_view::npos ? std::string_view() : input.substr(split + 1);
  (void)ZRVURL::removingPercentEncoding(input);
  auto decoded = ZRVURL::removingPercentEncoding(component);
  if (auto url = ZRVURL::URLWithString(base)) {
    (void)url->absoluteString();
    if (decoded) {
      if (auto joined = url->URLByAppendingPathComponent(*decoded)) (void)joined->absoluteString();
    }
  }
  return 0;
}
