#include <ZRVKit/ZRVHTTPClient.h>
#include <ZRVKit/ZRVMainQueue.h>

#include "support/LoopbackServer.h"

#include <gtest/gtest.h>

#include <future>
#include <set>
#include <thread>

#include <sys/mman.h>
#include <unistd.h>

using namespace std::chrono_literals;

namespace {

ZRVURL urlOf(const LoopbackServer& server, const std::string& path) {
  return *ZRVURL::URLWithString(server.baseAddress() + path);
}

ZRVHTTPResult fetch(ZRVHTTPRequest request) { return ZRVHTTPClient::sharedClient().sendSynchronousRequest(request); }

// `response` after `change`: for answers that wait, break off, never end or redirect.
ScriptedResponse with(ScriptedResponse response, const std::function<void(ScriptedResponse&)>& change) {
  change(response);
  return response;
}

}  // namespace

TEST(HTTPClient, AsynchronousAnswersArriveOnTheNamedQueue) {
  LoopbackServer server;
  server.on("GET", "/slow", with(ScriptedResponse::text("late", 503), [](auto& r) { r.delay = 200ms; }));
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
  // The stall is cut short when the server stops.
  server.on("GET", "/stall", with(ScriptedResponse::text("never"), [](auto& r) { r.delay = 60s; }));
  server.on("GET", "/drop", with(ScriptedResponse::text(std::string(10000, 'a')), [](auto& r) { r.dropConnection = true; }));
  server.on("GET", "/endless", with(ScriptedResponse::text(""), [](auto& r) { r.endless = true; }));
  server.on("GET", "/moved", with(ScriptedResponse::text("", 302), [](auto& r) { r.headers = {{"Location", "/elsewhere"}}; }));
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

TEST(HTTPClient, BodiesForADescriptorAreWrittenThereNotHeld) {
  LoopbackServer server;
  const std::string text(300 * 1024, 'x');
  server.on("GET", "/file", ScriptedResponse::text(text));
  server.on("GET", "/endless", with(ScriptedResponse::text(""), [](auto& r) { r.endless = true; }));
  struct Case {
    const char* name;
    const char* path;
    std::optional<long> failure;
    std::size_t written;  // at most, for a failure
  } cases[] = {
      {"an answer", "/file", std::nullopt, text.size()},
      {"an endless answer stops at the cap", "/endless", 23, 1 << 20},
  };
  for (const Case& c : cases) {
    int fd = ::memfd_create("body", MFD_CLOEXEC);
    ASSERT_GE(fd, 0);
    auto request = ZRVHTTPRequest::GET(urlOf(server, c.path));
    request.maxBodySize = 1 << 20;
    request.bodyDescriptor = fd;
    auto result = fetch(request);
    const auto length = static_cast<std::size_t>(::lseek(fd, 0, SEEK_END));
    ::close(fd);
    if (c.failure) {
      ASSERT_TRUE(result.error) << c.name;
      EXPECT_EQ(result.error->code(), *c.failure) << c.name;
      EXPECT_LE(length, c.written) << c.name;
    } else {
      ASSERT_TRUE(result.body) << c.name;
      EXPECT_TRUE(result.body->empty()) << c.name;
      EXPECT_EQ(result.bodyLength, c.written) << c.name;
      EXPECT_EQ(length, c.written) << c.name;
    }
  }
}

TEST(HTTPClient, SlowButSteadyTransfersAreNotCutOff) {
  // The time-out is about silence, not about the length of the whole transfer.
  LoopbackServer server;
  server.on("GET", "/steady", with(ScriptedResponse::text(std::string(6 * 1024, 's')), [](auto& r) { r.trickleInterval = 300ms; }));
  auto request = ZRVHTTPRequest::GET(urlOf(server, "/steady"));
  request.idleTimeout = 1s;
  auto started = std::chrono::steady_clock::now();
  auto result = fetch(request);
  ASSERT_TRUE(result.body) << result.error->localizedDescription();
  EXPECT_EQ(result.body->size(), 6u * 1024);
  EXPECT_GT(std::chrono::steady_clock::now() - started, 1200ms);
}

namespace {

// Records what an observer hears, per transfer, in order.
struct RecordingObserver : ZRVTransferObserver {
  std::mutex mutex;
  std::vector<std::string> events;
  std::vector<ZRVTransferState> ends;
  std::set<std::thread::id> threads;
  void transferStarted(const ZRVTransferState& state) override { note("start " + state.url, state); }
  void transferProgressed(const ZRVTransferState& state) override { note("progress", state); }
  void transferEnded(const ZRVTransferState& state) override {
    note("end", state);
    std::lock_guard lock(mutex);
    ends.push_back(state);
  }
  void note(const std::string& event, const ZRVTransferState&) {
    std::lock_guard lock(mutex);
    if (events.empty() || events.back() != event) events.push_back(event);
    threads.insert(std::this_thread::get_id());
  }
};

// Installs an observer for one test and removes it again.
struct Observing {
  std::shared_ptr<RecordingObserver> observer = std::make_shared<RecordingObserver>();
  Observing() { ZRVHTTPClient::sharedClient().setTransferObserver(observer); }
  ~Observing() { ZRVHTTPClient::sharedClient().setTransferObserver(nullptr); }
};

}  // namespace

TEST(HTTPClient, AnObserverHearsEachTransferOnTheThreadThatMakesIt) {
  LoopbackServer server;
  server.on("GET", "/missing", ScriptedResponse::text(std::string(3000, 'x'), 404));
  Observing observing;
  std::promise<bool> answered;
  ZRVHTTPClient::sharedClient().sendAsynchronousRequest(
      ZRVHTTPRequest::GET(urlOf(server, "/missing")), ZRVOperationQueue::workQueue(),
      [&](ZRVHTTPResult result) { answered.set_value(result.body.has_value()); });  // a 404 page is still an answer
  auto future = answered.get_future();
  ASSERT_EQ(future.wait_for(10s), std::future_status::ready);
  EXPECT_TRUE(future.get());
  ASSERT_FALSE(fetch(ZRVHTTPRequest::GET(*ZRVURL::URLWithString("http://127.0.0.1:1/dead"))).body);
  auto& observer = *observing.observer;
  std::lock_guard lock(observer.mutex);
  ASSERT_GE(observer.events.size(), 3u);
  EXPECT_EQ(std::vector<std::string>(observer.events.begin(), observer.events.begin() + 3),
            (std::vector<std::string>{"start " + urlOf(server, "/missing").absoluteString(), "progress", "end"}));
  ASSERT_EQ(observer.ends.size(), 2u);
  const ZRVTransferState &page = observer.ends[0], &dead = observer.ends[1];
  EXPECT_TRUE(page.succeeded && page.statusCode == 404 && page.expectedLength == 3000u && page.received == 3000u);
  EXPECT_TRUE(!dead.succeeded && !dead.statusCode && !dead.failure.empty());
  EXPECT_NE(page.identifier, dead.identifier);
  // The asynchronous transfer's thread, then this one for the synchronous read.
  EXPECT_EQ(observer.threads.size(), 2u);
  EXPECT_TRUE(observer.threads.count(std::this_thread::get_id()));
}
