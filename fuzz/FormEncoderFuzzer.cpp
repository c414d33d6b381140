// Fuzzes the login form's encoder: any text, valid UTF-8 or not, is encoded without a crash, and the result
// holds only the allowed characters and percent escapes (no blank, "&", "=" or "+" can reach the form).

#include "FuzzSupport.h"
#include "account/FormEncoder.h"

#include <cstdlib>

using namespace zrv::account;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto result = encoded(std::string(fuzz::text(data, size)));
  if (!result) std::abort();
  for (char c : *result) {
    if (c == ' ' || c == '&' || c == '=' || c == '+' || c == '\0') std::abort();
  }
  return 0;
}
