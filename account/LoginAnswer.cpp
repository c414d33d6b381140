#include "account/LoginAnswer.h"

#include <ZRVKit/ZRVBoundedJSON.h>

namespace zrv::account {

namespace {

// A member of the answer as text: strings as they are, numbers and the like as JSON; absent otherwise.
std::optional<std::string> member(const ZRVJSON& answer, const char* key) {
  if (!answer.is_object()) return std::nullopt;
  auto found = answer.find(key);
  if (found == answer.end() || found->is_null()) return std::nullopt;
  return found->is_string() ? found->get<std::string>() : found->dump();
}

}  // namespace

LoginAnswer readLoginAnswer(const ZRVData& body) {
  LoginAnswer answer;
  // An answer that is not JSON, or goes beyond the reader's limits, is an answer without "success".
  answer.document = ZRVBoundedJSON::read(body.data(), body.size()).document.value_or(nullptr);
  const ZRVJSON& document = answer.document;
  if (document.is_object()) {
    auto success = document.find("success");
    if (success != document.end() && success->is_string()) answer.success = success->get<std::string>();
  }
  answer.queueToken = member(document, "queueToken");
  answer.cookie = member(document, "cookie");
  answer.responseToken = member(document, "responseToken");
  return answer;
}

}  // namespace zrv::account
