#include "ThrottledServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

// One schedule for all connections: each chunk is given the next free slot of the shared line.
class RateLine {
 public:
  explicit RateLine(double bytesPerSecond) : bytesPerSecond_(bytesPerSecond) {}
  void waitToSend(std::size_t bytes) {
    Clock::time_point start;
    {
      std::lock_guard lock(mutex_);
      Clock::time_point now = Clock::now();
      if (next_ < now) next_ = now;
      start = next_;
      next_ += std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(bytes / bytesPerSecond_));
    }
    std::this_thread::sleep_until(start);
  }

 private:
  double bytesPerSecond_;
  std::mutex mutex_;
  Clock::time_point next_{};
};

bool sendAll(int socket, const char* data, std::size_t size) {
  while (size > 0) {
    ssize_t sent = send(socket, data, size, MSG_NOSIGNAL);
    if (sent <= 0) return false;
    data += sent;
    size -= static_cast<std::size_t>(sent);
  }
  return true;
}

std::string bodyFor(const fs::path& tree, const std::string& target, int port, bool& found) {
  found = true;
  if (target == "/api/mirrors") return "[\"http://127.0.0.1:" + std::to_string(port) + "/content/\"]";
  std::string path = target.substr(0, target.find('?'));
  if (path.find("..") != std::string::npos || path.empty() || path[0] != '/') {
    found = false;
    return {};
  }
  std::ifstream file(tree / path.substr(1), std::ios::binary);
  if (!file) {
    found = false;
    return {};
  }
  return std::string(std::istreambuf_iterator<char>(file), {});
}

void serveConnection(int socket, const fs::path& tree, int port, RateLine& line, std::atomic<std::uint64_t>& sent) {
  std::string request;
  char buffer[4096];
  while (request.find("\r\n\r\n") == std::string::npos && request.size() < 65536) {
    ssize_t count = recv(socket, buffer, sizeof buffer, 0);
    if (count <= 0) break;
    request.append(buffer, static_cast<std::size_t>(count));
  }
  std::string method = request.substr(0, request.find(' '));
  std::size_t targetStart = request.find(' ') + 1;
  std::string target = request.substr(targetStart, request.find(' ', targetStart) - targetStart);
  bool found = false;
  std::string body = method == "GET" ? bodyFor(tree, target, port, found) : std::string();
  std::string head = std::string(found ? "HTTP/1.1 200 OK" : "HTTP/1.1 404 Not Found") +
                     "\r\nContent-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n";
  if (sendAll(socket, head.data(), head.size())) {
    constexpr std::size_t kChunk = 16384;
    for (std::size_t at = 0; at < body.size(); at += kChunk) {
      std::size_t size = std::min(kChunk, body.size() - at);
      line.waitToSend(size);
      if (!sendAll(socket, body.data() + at, size)) break;
      sent += size;
    }
  }
  close(socket);
}

}  // namespace

int serveThrottled(int argc, char** argv) {
  if (argc != 6) return 2;
  const fs::path tree = argv[2];
  const int port = std::stoi(argv[3]);
  const std::string countFile = argv[5];
  static RateLine line(std::stod(argv[4]));
  static std::atomic<std::uint64_t> sent{0};

  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGTERM);
  sigaddset(&stop, SIGINT);
  pthread_sigmask(SIG_BLOCK, &stop, nullptr);

  int listener = socket(AF_INET, SOCK_STREAM, 0);
  int yes = 1;
  setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || listen(listener, 64) != 0) return 1;

  std::thread([listener, tree, port] {
    for (;;) {
      int connection = accept(listener, nullptr, nullptr);
      if (connection < 0) continue;
      std::thread(serveConnection, connection, tree, port, std::ref(line), std::ref(sent)).detach();
    }
  }).detach();

  int received = 0;
  sigwait(&stop, &received);
  std::ofstream(countFile) << sent.load() << "\n";
  return 0;
}
