// Fuzzes the server status answer: whatever cannot be read must count as online with an error, and every
// answer is reported exactly once.

#include "FuzzSupport.h"
#include "info/Answers.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  ZRVHTTPResult result;
  result.response = ZRVHTTPResponse{};
  result.response->statusCode = 200;
  result.body = ZRVData(data, data + size);
  int reports = 0;
  zrv::info::handleStatusAnswer(zrv::readJSONAnswer(std::move(result), zrv::info::kStatusDocument), [&](bool online, std::optional<ZRVError> error) {
    ++reports;
    if (error && !online) std::abort();
  });
  if (reports != 1) std::abort();
  return 0;
}
