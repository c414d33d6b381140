#pragma once
// A scripted HTTP server on 127.0.0.1 (ephemeral port) for tests. Each route is scripted with answers;
// any request that no route expects fails the running test.

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace httplib {
class Server;
}

struct RecordedRequest {
  std::string method;
  std::string path;    ///< without the query
  std::string target;  ///< path and query as sent
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;

  /// The first header of that name, compared without regard to case; "" when absent.
  std::string header(const std::string& name) const;
  bool hasHeader(const std::string& name) const;
};

struct ScriptedResponse {
  int status = 200;
  std::string body;
  std::string contentType = "application/json";
  std::vector<std::pair<std::string, std::string>> headers;
  /// Wait this long before answering.
  std::chrono::milliseconds delay{0};
  /// Send the head and part of the body, then close the connection.
  bool dropConnection = false;
  /// Stream the body forever (until the client gives up or the server stops).
  bool endless = false;
  /// Send the body in pieces of 1 KiB with this pause between them.
  std::chrono::milliseconds trickleInterval{0};

  static ScriptedResponse json(std::string body, int status = 200);
  static ScriptedResponse text(std::string body, int status = 200);
};

class LoopbackServer {
 public:
  using Handler = std::function<ScriptedResponse(const RecordedRequest& request)>;

  LoopbackServer();
  ~LoopbackServer();
  LoopbackServer(const LoopbackServer&) = delete;
  LoopbackServer& operator=(const LoopbackServer&) = delete;

  /// "http://127.0.0.1:PORT".
  std::string baseAddress() const;

  /// Answers every `method` request for `route` with `response`. A route with "?" must match the query too.
  void on(const std::string& method, const std::string& route, ScriptedResponse response);
  /// Answers successive requests with successive responses; a request beyond the last is unexpected.
  void onSequence(const std::string& method, const std::string& route, std::vector<ScriptedResponse> responses);
  /// Answers with whatever `handler` returns.
  void onHandler(const std::string& method, const std::string& route, Handler handler);

  std::vector<RecordedRequest> requests() const;
  std::size_t requestCount(const std::string& method, const std::string& route) const;
  /// Waits until `count` requests have arrived in all; false on time-out.
  bool waitForRequests(std::size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;

 private:
  std::unique_ptr<httplib::Server> server_;
  std::thread thread_;
  int port_ = 0;
  mutable std::mutex mutex_;
  mutable std::condition_variable arrived_;
  std::condition_variable stopped_;
  std::map<std::string, Handler> routes_;
  std::vector<RecordedRequest> requests_;
  bool stopping_ = false;
};
