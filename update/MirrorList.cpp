#include "update/MirrorList.h"

namespace zrv::update {

std::vector<ZRVURL> mirrorURLsFromList(const ZRVJSON& list) {
  std::vector<ZRVURL> mirrors;
  if (!list.is_array()) return mirrors;
  for (const auto& element : list) {
    if (!element.is_string()) continue;
    auto url = ZRVURL::URLWithString(element.get<std::string>());
    if (url && !url->empty()) mirrors.push_back(std::move(*url));
  }
  return mirrors;
}

}  // namespace zrv::update
