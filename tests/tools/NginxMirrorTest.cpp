// `zrv update` against a real web server: Debian's nginx serves a tree made by `zrv publish`, with locations
// that play an unsynced mirror (404 pages), a throttled one and a trickling one. The server is configured in a
// temporary folder, listens on 127.0.0.1 on a free port, and is started and stopped here by its PID; every
// request it logs must be one the update is expected to make.

#include "support/ShellCommand.h"
#include "support/TemporaryDirectory.h"

#include <ZRVKit/ZRVJSON.h>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <random>
#include <regex>
#include <sstream>
#include <thread>

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

constexpr const char* kNginx = "/usr/sbin/nginx";

std::string randomBytes(std::size_t size, unsigned seed) {
  std::mt19937 generator(seed);
  std::string bytes(size, '\0');
  for (char& byte : bytes) byte = static_cast<char>(generator());
  return bytes;
}

sockaddr_in loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

// A loopback socket bound to a port the kernel picked; kept open only as long as the caller wants.
struct LoopbackSocket {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int port = 0;
  explicit LoopbackSocket(bool listening) {
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    port = ntohs(address.sin_port);
    if (listening) ::listen(fd, 16);
  }
  ~LoopbackSocket() { ::close(fd); }
};

bool accepts(int port) {
  LoopbackSocket probe(false);
  sockaddr_in address = loopback(port);
  return ::connect(probe.fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
}

// nginx serving `root`, run in the foreground as a child of the test.
class Nginx {
 public:
  Nginx(const fs::path& root, const fs::path& work) : work_(work) {
    port_ = LoopbackSocket(false).port;
    std::string w = work.string(), r = root.string(), temporaries;
    for (std::string kind : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"}) {
      fs::create_directories(work / "temp" / kind);
      temporaries += "  " + kind + "_temp_path " + w + "/temp/" + kind + ";\n";
    }
    writeFile(work / "nginx.conf",
              "daemon off;\nmaster_process off;\nworker_processes 1;\npid " + w + "/nginx.pid;\nerror_log " + w +
                  "/error.log;\nevents { worker_connections 64; }\nhttp {\n"
                  "  log_format requests '$status $request_uri';\n  access_log " + w + "/access.log requests;\n" +
                  temporaries + "  default_type application/octet-stream;\n"
                  "  server {\n    listen 127.0.0.1:" + std::to_string(port_) + ";\n    root " + r + ";\n"
                  "    location /unsynced/ { return 404; }\n"
                  "    location /throttled/ { alias " + r + "/; limit_rate 20k; }\n"
                  "    location /trickle/ { alias " + r + "/; limit_rate 1; }\n  }\n}\n");
    pid_ = ::fork();
    if (pid_ == 0) {
      ::execl(kNginx, "nginx", "-p", w.c_str(), "-c", (w + "/nginx.conf").c_str(), "-e", (w + "/error.log").c_str(),
              static_cast<char*>(nullptr));
      ::_exit(127);
    }
    for (int attempt = 0; attempt < 200 && pid_ > 0 && !accepts(port_); ++attempt) {
      if (::waitpid(pid_, nullptr, WNOHANG) == pid_) pid_ = -1;  // it gave up: errors() says why
      std::this_thread::sleep_for(25ms);
    }
  }
  ~Nginx() {
    if (pid_ > 0 && ::kill(pid_, SIGTERM) == 0) ::waitpid(pid_, nullptr, 0);
  }
  Nginx(const Nginx&) = delete;
  bool running() const { return pid_ > 0 && accepts(port_); }
  std::string base() const { return "http://127.0.0.1:" + std::to_string(port_); }
  std::string errors() const { return readFile(work_ / "error.log"); }

  // The requests logged since the last call, as "STATUS URI".
  std::vector<std::string> takeRequests() {
    const std::string log = readFile(work_ / "access.log");
    std::istringstream fresh(log.substr(std::min(seen_, log.size())));
    seen_ = log.size();
    std::vector<std::string> lines;
    for (std::string line; std::getline(fresh, line);) lines.push_back(line);
    return lines;
  }

 private:
  fs::path work_;
  int port_ = 0;
  pid_t pid_ = -1;
  std::size_t seen_ = 0;
};

using Outcome = ShellOutcome;

class NginxMirror : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!fs::exists(kNginx)) {
      GTEST_SKIP() << "nginx is not installed here (scripts/bootstrap.sh installs nginx-light); the real web "
                      "server test cannot run";
    }
    // Two builds with files in sub-folders; the second changes some, adds one and keeps one.
    const std::string level = randomBytes(3000, 1), harbour = randomBytes(2000, 2);
    for (const auto& [name, contents] : std::map<std::string, std::string>{
             {"1/Quillmoor", "#!/bin/sh\necho build 1\n"}, {"2/Quillmoor", "#!/bin/sh\necho build 2\n"},
             {"1/data/level1.bin", level}, {"2/data/level1.bin", std::string(level).replace(100, 50, 50, 'x')},
             {"1/data/maps/harbour.map", harbour}, {"2/data/maps/harbour.map", harbour + "appended"},
             {"2/data/maps/new.map", randomBytes(1000, 3)}, {"1/readme.txt", "same in both builds\n"},
             {"2/readme.txt", "same in both builds\n"}}) {
      writeFile(home / "builds" / name, contents);
    }
    writeFile(home / "framework/Cg.framework/Cg", "framework binary");
    ASSERT_EQ(std::system(("cd '" + (home / "framework").string() + "' && zip -qr ../Cg.framework.zip Cg.framework").c_str()), 0);
    fs::create_directories(home / "tree");
    nginx = std::make_unique<Nginx>(home / "tree", home / "nginx");
    ASSERT_TRUE(nginx->running()) << nginx->errors();
  }

  void TearDown() override {
    if (!nginx) return;
    // Only what an update asks for: the mirror list, the manifest, the framework and the mirrors' files.
    std::regex expected(R"(\d{3} /(api/mirrors|mirrors\.txt|content/.*|launcher/mac/aditional-libraries/Cg\.framework\.zip|(unsynced|throttled|trickle)/content/.*))");
    for (const auto& request : nginx->takeRequests()) {
      EXPECT_TRUE(std::regex_match(request, expected)) << "unexpected request: " << request;
    }
  }

  Outcome zrv(const std::string& arguments) { return runZrv(ZRV_TOOL_PATH, home.path(), arguments); }

  void publish(const std::string& build, const std::vector<std::string>& mirrors, const std::string& from = "") {
    std::string command = "publish --quiet builds/" + build + " tree --framework Cg.framework.zip";
    if (!from.empty()) command += " --from builds/" + from;
    for (const auto& mirror : mirrors) command += " --mirror " + mirror;
    Outcome published = zrv(command);
    ASSERT_EQ(published.status, 0) << published.output;
  }

  Outcome update(const std::string& install, int stallTimeout = 10) {
    return zrv("--server " + nginx->base() + " update --install " + install + " --stall-timeout " +
               std::to_string(stallTimeout));
  }

  void expectInstalled(const std::string& install, const std::string& build) {
    for (const auto& entry : fs::recursive_directory_iterator(home / "builds" / build)) {
      if (!entry.is_regular_file()) continue;
      fs::path name = fs::relative(entry.path(), home / "builds" / build);
      EXPECT_EQ(readFile(home / install / name), readFile(entry.path())) << name;
    }
  }

  std::string content() const { return nginx->base() + "/content/"; }

  TemporaryDirectory home;
  std::unique_ptr<Nginx> nginx;
};

}  // namespace

TEST_F(NginxMirror, AFreshInstallWithSubFoldersThenAPatchUpdate) {
  publish("1", {content()});
  Outcome fresh = update("game");
  EXPECT_EQ(fresh.status, 0) << fresh.output;
  EXPECT_NE(fresh.output.find("Everything is up to date"), std::string::npos) << fresh.output;
  expectInstalled("game", "1");
  EXPECT_TRUE(fs::exists(home / "game/Frameworks/Cg.framework/Cg"));
  EXPECT_EQ(fresh.output.find('\x1b'), std::string::npos);  // not a terminal: plain lines only
  nginx->takeRequests();

  publish("2", {content()}, "1");
  Outcome patched = update("game");
  EXPECT_EQ(patched.status, 0) << patched.output;
  expectInstalled("game", "2");
  bool patchesServed = false;
  for (const auto& request : nginx->takeRequests()) patchesServed |= request.rfind("200 /content/patches/", 0) == 0;
  EXPECT_TRUE(patchesServed) << "the update should have used patches";
}

TEST_F(NginxMirror, BadMirrorsEndInACorrectInstallFromAGoodOneOrFailNamingEveryFileAndTheMirror) {
  const std::string unsynced = nginx->base() + "/unsynced/content/";
  const struct {
    std::vector<std::string> mirrors;
    int status;
    std::vector<std::string> says, never;
  } cases[] = {
      {{"http://127.0.0.1:1/content/", content()}, 0, {"Everything is up to date"}, {"Repaired"}},
      {{unsynced, content()}, 0, {"Repaired", "Everything is up to date"}, {}},
      {{unsynced}, 1,
       {"Quillmoor: expected ", "data/level1.bin: expected ", "data/maps/harbour.map: expected ",
        "served by " + unsynced + " with status 404"},
       {"Everything is up to date"}},
  };
  for (const auto& c : cases) {
    publish("1", c.mirrors);
    const std::string install = "game-" + std::to_string(&c - cases);
    Outcome outcome = update(install);
    EXPECT_EQ(outcome.status, c.status) << install << "\n" << outcome.output;
    if (c.status == 0) expectInstalled(install, "1");
    for (const auto& text : c.says) EXPECT_NE(outcome.output.find(text), std::string::npos) << text << outcome.output;
    for (const auto& text : c.never) EXPECT_EQ(outcome.output.find(text), std::string::npos) << text << outcome.output;
  }

  Outcome json = zrv("--server " + nginx->base() + " update --install game-2 --json");
  EXPECT_EQ(json.status, 1);
  auto document = ZRVJSON::parse(json.output, nullptr, false);
  ASSERT_TRUE(document.is_object()) << json.output;
  EXPECT_EQ(document["upToDate"], false);
  EXPECT_EQ(document["badFiles"].size(), 4u);
  EXPECT_EQ(document["badFiles"][0]["status"], 404);
  EXPECT_EQ(document["badFiles"][0]["servedBy"], unsynced);
}

TEST_F(NginxMirror, AThrottledMirrorIsNoStallWhileTricklingAndSilentOnesAre) {
  // Incompressible, so that its download takes seconds at the throttled rate.
  writeFile(home / "builds/1/data/level1.bin", randomBytes(80 * 1024, 4));
  publish("1", {nginx->base() + "/throttled/content/"});
  Outcome throttled = update("game", 2);
  EXPECT_EQ(throttled.status, 0) << throttled.output;
  expectInstalled("game", "1");
  // Progress moved while the file came: a line with some bytes, before the last one.
  std::regex partial(R"(files \d+/\d+, ([\d.]+) KiB, [\d.]+ KiB/s)");
  EXPECT_TRUE(std::regex_search(throttled.output, partial)) << throttled.output;

  LoopbackSocket silent(true);  // accepts connections (the kernel does) and never answers
  struct Case {
    std::string name;
    std::string mirror;
  } cases[] = {
      {"trickling", nginx->base() + "/trickle/content/"},
      {"never answering", "http://127.0.0.1:" + std::to_string(silent.port) + "/content/"},
  };
  for (const auto& c : cases) {
    publish("1", {c.mirror});
    std::string install = "stalled-" + std::to_string(&c - cases);
    Outcome stalled = update(install, 2);
    EXPECT_EQ(stalled.status, 1) << c.name << "\n" << stalled.output;
    EXPECT_NE(stalled.output.find("stalled"), std::string::npos) << c.name << "\n" << stalled.output;
    EXPECT_NE(stalled.output.find(c.mirror), std::string::npos) << c.name << ": names the URLs in flight\n"
                                                                 << stalled.output;
  }
}
