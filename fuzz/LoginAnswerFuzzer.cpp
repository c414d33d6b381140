// Fuzzes the login answer as the login client reads it: the document handed to the caller (copied and
// printed, as a launcher would) and the members it acts on. The answer stays the caller's to inspect.

#include "FuzzSupport.h"
#include "account/LoginAnswer.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zrv::account::LoginAnswer answer = zrv::account::readLoginAnswer(ZRVData(data, data + size));
  ZRVJSON copy = answer.document;  // the report carries the answer by value
  (void)copy.dump();
  if (answer.success && !answer.document.is_object()) std::abort();
  return 0;
}
