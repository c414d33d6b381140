// Fuzzes the server status answer: whatever cannot be read must count as online with an error, and every
// answer is reported exactly once.

#include "FuzzSupport.h"
#include "info/Answers.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  int reports = 0;
  zrv::info::handleStatusAnswer(zrv::readJSONAnswer(fuzz::answer(data, size), zrv::info::kStatusDocument), [&](bool online, std::optional<ZRVError> error) {
    ++reports;
    if (error && !online) std::abort();
  });
  if (reports != 1) std::abort();
  return 0;
}
