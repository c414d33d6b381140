#include "serve/DemoServer.h"

#include "serve/Routes.h"

#include <httplib.h>

#include <stdexcept>

DemoServer::DemoServer(DemoServerOptions options)
    : server_(std::make_unique<httplib::Server>()), state_(std::make_unique<DemoState>()) {
  state_->options = std::move(options);
  // Idle keep-alive connections close soon, so that stopping the server never waits long for them.
  server_->set_keep_alive_timeout(1);
  registerStatusRoutes(*server_, *state_);
  registerContentRoutes(*server_, *state_);
  registerLoginRoutes(*server_, *state_);
  registerInvasionRoutes(*server_, *state_);
}

DemoServer::~DemoServer() { stop(); }

int DemoServer::start(const std::string& host, int port) {
  int bound = port == 0 ? server_->bind_to_any_port(host.c_str()) : (server_->bind_to_port(host.c_str(), port) ? port : -1);
  if (bound < 0) throw std::runtime_error("cannot listen on " + host + ":" + std::to_string(port));
  state_->baseAddress = "http://" + host + ":" + std::to_string(bound);
  thread_ = std::thread([this] { server_->listen_after_bind(); });
  // Listening has begun at bind; stop() is only safe once the accept loop runs.
  while (!server_->is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return bound;
}

void DemoServer::stop() {
  if (server_) server_->stop();
  if (thread_.joinable()) thread_.join();
}

void DemoServer::wait() {
  if (thread_.joinable()) thread_.join();
}
