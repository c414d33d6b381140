// Checks a game server and the files given: the server's status and each file's SHA-1, the digests computed
// in parallel on the library's work queue and collected on the main thread.
//
//   check SERVER [FILE...]      e.g.  check http://127.0.0.1:8080 Quillmoor.bin
//
// Every request goes to SERVER: the real hosts are never contacted.

#include <ZRVKit/ZRVExtensions.h>
#include <ZRVKit/ZRVHosts.h>
#include <ZRVKit/ZRVMainQueue.h>
#include <ZRVKit/ZRVServerStatus.h>

#include <chrono>
#include <filesystem>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <string>

namespace {

struct Results {
  std::optional<std::string> status;
  std::map<std::string, std::string> digests;  // by file, so that they print in a stable order
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::cerr << "usage: " << argv[0] << " SERVER [FILE...]   (SERVER like http://127.0.0.1:8080)\n";
    return 2;
  }
  ZRVHosts::setRedirect(std::string(argv[1]));
  if (!ZRVHosts::URL(ZRVHost::webAPI, "/api/status")) {
    std::cerr << "not a server address: " << argv[1] << "\n";
    return 2;
  }

  // Shared with the callbacks, which may outlive this frame when the wait times out.
  auto results = std::make_shared<Results>();
  auto& mainQueue = ZRVOperationQueue::mainQueue();

  ZRVServerStatus::currentStatus().getServerStatus([results, &mainQueue](bool online, std::optional<ZRVError> error) {
    std::string status = online ? "online" : "offline";
    if (error) status += " (assumed: " + error->localizedDescription() + ")";
    mainQueue.addOperationWithBlock([results, status] { results->status = status; });
  });
  const std::size_t fileCount = static_cast<std::size_t>(argc - 2);
  for (int index = 2; index < argc; ++index) {
    std::filesystem::path file = argv[index];
    ZRVOperationQueue::workQueue().addOperationWithBlock([results, &mainQueue, file] {
      std::string digest = ZRVExtensions::sha1Hash(file);
      mainQueue.addOperationWithBlock([results, file, digest] {
        results->digests[file.string()] = digest.empty() ? "(cannot be read)" : digest;
      });
    });
  }

  bool finished = mainQueue.runUntil(
      [results, fileCount] { return results->status && results->digests.size() == fileCount; },
      std::chrono::seconds(60));
  if (!finished) {
    std::cerr << "the server did not answer in time\n";
    return 1;
  }

  std::cout << "server: " << *results->status << "\n";
  bool allRead = true;
  for (const auto& [file, digest] : results->digests) {
    std::cout << digest << "  " << file << "\n";
    allRead = allRead && digest.front() != '(';
  }
  return allRead ? 0 : 1;
}
