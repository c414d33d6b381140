#include <ZRVKit/ZRVHTTPClient.h>
#include <ZRVKit/ZRVMainQueue.h>

#include "support/LoopbackServer.h"

#include <gtest/gtest.h>

#include <future>
#include <set>

using namespace std::chrono_literals;

namespace {

ZRVURL urlOf(const LoopbackServer& server, const std::string& path) {
  return *ZRVURL::URLWithString(server.baseAddress() + path);
}

ZRVHTTPResult fetch(ZRVHTTPRequest request) { return ZRVHTTPClient::sharedClient().sendSynchronousRequest(request); }

}  // namespace

TEST(HTTPClient, FormPostSendsExactlyTheBodyAndItsHeaders) {
  LoopbackServer server;
  server.on("POST", "/api/login?format=json", ScriptedResponse::json(R"({"success":"true"})"));
  auto result = fetch(ZRVHTTPRequest::formPOST(urlOf(server, "/api/login?format=json"), "username=a%20b&password=x"));
  ASSERT_TRUE(result.body);
  EXPECT_EQ(result.response->statusCode, 200);
  EXPECT_EQ(std::string(result.body->begin(), result.body->end()), R"({"success":"true"})");
  auto sent = server.requests().at(0);
  EXPECT_EQ(sent.body, "username=a%20b&password=x");
  EXPECT_EQ(sent.header("Content-Length"), "25");
  EXPECT_EQ(sent.header("Content-Type"), "application/x-www-form-urlencoded");
  EXPECT_FALSE(sent.hasHeader("User-Agent"));
  EXPECT_FALSE(sent.hasHeader("Expect"));
}

TEST(HTTPClient, AsynchronousAnswersArriveOnTheNamedQueue) {
  LoopbackServer server;
  server.on("GET", "/slow", [] {
    auto response = ScriptedResponse::text("late", 503);
    response.delay = 200ms;
    return response;
  }());
  server.on("GET", "/fast", ScriptedResponse::text("early"));
  std::promise<std::string> order;
  std::mutex mutex;
  std::string arrived;
  int count = 0;
  auto record = [&](ZRVHTTPResult result) {
    EXPECT_EQ(ZRVOperationQueue::currentQueue(), &ZRVOperationQueue::workQueue());
    std::lock_guard lock(mutex);
    arrived += std::string(result.body->begin(), result.body->end()) + std::to_string(result.response->statusCode);
    if (++count == 2) order.set_value(arrived);
  };
  auto& client = ZRVHTTPClient::sharedClient();
  client.sendAsynchronousRequest(ZRVHTTPRequest::GET(urlOf(server, "/slow")), ZRVOperationQueue::workQueue(), record);
  client.sendAsynchronousRequest(ZRVHTTPRequest::GET(urlOf(server, "/fast")), ZRVOperationQueue::workQueue(), record);
  auto future = order.get_future();
  ASSERT_EQ(future.wait_for(10s), std::future_status::ready);
  EXPECT_EQ(future.get(), "early200late503");  // concurrent: the fast answer does not wait for the slow one
}

TEST(HTTPClient, TransportFailuresHaveNoBody) {
  LoopbackServer server;
  server.on("GET", "/stall", [] {
    auto response = ScriptedResponse::text("never", 200);
    response.delay = 60s;  // cut short when the server stops
    return response;
  }());
  server.on("GET", "/drop", [] {
    auto response = ScriptedResponse::text(std::string(10000, 'a'));
    response.dropConnection = true;
    return response;
  }());
  server.on("GET", "/endless", [] {
    auto response = ScriptedResponse::text("");
    response.endless = true;
    return response;
  }());
  server.on("GET", "/moved", [] {
    auto response = ScriptedResponse::text("", 302);
    response.headers = {{"Location", "/elsewhere"}};
    return response;
  }());

  auto stall = ZRVHTTPRequest::GET(urlOf(server, "/stall"));
  stall.idleTimeout = 300ms;
  auto endless = ZRVHTTPRequest::GET(urlOf(server, "/endless"));
  endless.maxBodySize = 1 << 20;
  auto moved = ZRVHTTPRequest::GET(urlOf(server, "/moved"));
  moved.followRedirects = false;

  struct Case {
    const char* name;
    ZRVHTTPRequest request;
    std::set<long> codes;
  } cases[] = {
      {"idle time-out", stall, {28}},
      // A short body or a reset, depending on when the close reaches the client.
      {"dropped connection", ZRVHTTPRequest::GET(urlOf(server, "/drop")), {18, 56}},
      {"answer over the cap", endless, {23}},
      {"no server", ZRVHTTPRequest::GET(*ZRVURL::URLWithString("http://127.0.0.1:1/")), {7}},
  };
  for (const auto& c : cases) {
    auto result = fetch(c.request);
    EXPECT_FALSE(result.body) << c.name;
    EXPECT_FALSE(result.response) << c.name;
    ASSERT_TRUE(result.error) << c.name;
    EXPECT_EQ(result.error->domain(), ZRVError::kHTTPDomain) << c.name;
    EXPECT_TRUE(c.codes.count(result.error->code())) << c.name << ": " << result.error->code() << " "
                                                      << result.error->localizedDescription();
  }

  auto notFollowed = fetch(moved);  // a redirect that is not followed is an answer of its own
  ASSERT_TRUE(notFollowed.response);
  EXPECT_EQ(notFollowed.response->statusCode, 302);
  EXPECT_EQ(notFollowed.response->header("location"), "/elsewhere");
}

TEST(HTTPClient, SlowButSteadyTransfersAreNotCutOff) {
  // The time-out is about silence, not about the length of the whole transfer.
  LoopbackServer server;
  auto steady = ScriptedResponse::text(std::string(6 * 1024, 's'));
  steady.trickleInterval = 300ms;
  server.on("GET", "/steady", steady);
  auto request = ZRVHTTPRequest::GET(urlOf(server, "/steady"));
  request.idleTimeout = 1s;
  auto started = std::chrono::steady_clock::now();
  auto result = fetch(request);
  ASSERT_TRUE(result.body) << result.error->localizedDescription();
  EXPECT_EQ(result.body->size(), 6u * 1024);
  EXPECT_GT(std::chrono::steady_clock::now() - started, 1200ms);
}
