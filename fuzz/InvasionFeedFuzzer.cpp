// Fuzzes the invasion feed's answer: the reader, the records made of it and the tracker they feed. Every
// record has the nine keys; every outcome is reported exactly once.

#include "FuzzSupport.h"
#include "info/Answers.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  int reports = 0;
  auto report = [&](bool reached, std::vector<ZRVJSON> invasions, std::optional<ZRVError> error) {
    ++reports;
    if (!reached || (error && !invasions.empty())) std::abort();
    for (const ZRVJSON& record : invasions) {
      if (record.size() != 9 || !record.contains("id") || record["id"].get<std::string>().size() != 19) std::abort();
    }
    if (error) (void)error->localizedDescription();
  };
  zrv::info::handleInvasionFeed(zrv::readJSONAnswer(fuzz::answer(data, size), zrv::info::kInvasionFeed), report);
  if (reports != 1) std::abort();
  return 0;
}
