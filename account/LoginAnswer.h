#pragma once
// What the login client reads of the server's answer: the document itself (handed to the caller whole) and the
// four members it acts on. Apart from the exchange, so that the fuzz target can feed it directly.

#include <ZRVKit/ZRVData.h>
#include <ZRVKit/ZRVJSON.h>

#include <optional>
#include <string>

namespace zrv::account {

struct LoginAnswer {
  ZRVJSON document;  // null when the body is not JSON or goes beyond the reader's limits
  std::optional<std::string> success;  // only a text counts
  std::optional<std::string> queueToken;
  std::optional<std::string> cookie;
  std::optional<std::string> responseToken;
};

LoginAnswer readLoginAnswer(const ZRVData& body);

}  // namespace zrv::account
