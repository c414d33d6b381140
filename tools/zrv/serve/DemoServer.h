#pragma once
// The embedded development server: the game's web API and content, on the loopback interface.
// `zrv serve` runs it in the foreground; `zrv demo` runs it beside the launcher flow.

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <thread>

namespace httplib {
class Server;
}

struct DemoServerOptions {
  /// A published tree (content/, mirrors.txt) to serve as the content host.
  std::optional<std::filesystem::path> contentDirectory;
};

/// What the route groups share: the options and the state the demo flow changes between requests.
struct DemoState {
  DemoServerOptions options;
  std::string baseAddress;  ///< "http://127.0.0.1:PORT", known once the server listens
  bool online = true;
};

class DemoServer {
 public:
  explicit DemoServer(DemoServerOptions options = {});
  ~DemoServer();
  DemoServer(const DemoServer&) = delete;
  DemoServer& operator=(const DemoServer&) = delete;

  /// Listens on host:port (0 picks a free port) and serves on a background thread. Returns the port.
  /// Throws std::runtime_error when the address cannot be bound.
  int start(const std::string& host, int port);
  /// Stops serving and waits for the serving thread.
  void stop();
  /// Blocks until the server stops.
  void wait();

  std::string baseAddress() const { return state_->baseAddress; }

 private:
  std::unique_ptr<httplib::Server> server_;
  std::unique_ptr<DemoState> state_;
  std::thread thread_;
};
