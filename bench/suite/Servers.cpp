#include "Bench.h"
#include "Child.h"
#include "ThrottledServer.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>
#include <thread>

int freePort() {
  int probe = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    close(probe);
    throw std::runtime_error("no free loopback port");
  }
  close(probe);
  return ntohs(address.sin_port);
}

namespace {

void waitUntilAnswers(Server& server, const std::string& path) {
  for (int attempt = 0; attempt < 100; ++attempt) {
    try {
      runChild({"curl", "-sf", "-o", "/dev/null", server.base() + path});
      return;
    } catch (const std::runtime_error&) {
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
  }
  stop(server);
  throw std::runtime_error("the loopback server did not answer");
}

}  // namespace

Server serveTree(const Bench& bench, const std::string& tree) {
  Server server;
  server.port = freePort();
  server.pid = startChild({bench.zrv, "serve", "--port", std::to_string(server.port), "--content", tree});
  waitUntilAnswers(server, "/api/mirrors");
  return server;
}

Server serveThrottled(const Bench& bench, const std::string& tree, double bytesPerSecond, const std::string& countFile) {
  Server server;
  server.port = freePort();
  server.pid = startChild({bench.self, kServeThrottled, tree, std::to_string(server.port),
                           std::to_string(bytesPerSecond), countFile});
  waitUntilAnswers(server, "/api/mirrors");
  return server;
}

void stop(Server& server) {
  stopChild(server.pid);
  server.pid = 0;
}
