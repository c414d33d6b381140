#include "flows/GameManifest.h"

#include <ZRVKit/ZRVBoundedJSON.h>
#include <ZRVKit/ZRVGlobals.h>
#include <ZRVKit/ZRVHTTPClient.h>
#include <ZRVKit/ZRVPatcher.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <unordered_set>

namespace fs = std::filesystem;

std::optional<ZRVJSON> parseManifestDocument(const ZRVData& body) {
  // The same bounded reader as the library's, so a document the library refuses is refused here too.
  ZRVJSONReading reading = ZRVBoundedJSON::read(body.data(), body.size(), {ZRVPatcher::kMaxDocumentSize});
  if (!reading.document || !reading.document->is_object()) return std::nullopt;
  return std::move(reading.document);
}

bool staysInside(const std::string& name) {
  if (name.empty() || name.front() == '/' || name.find('\0') != std::string::npos) return false;
  for (const auto& part : fs::path(name)) {
    if (part == "..") return false;
  }
  return true;
}

namespace {

std::optional<std::string> textMember(const ZRVJSON& entry, const char* key) {
  auto found = entry.find(key);
  if (found == entry.end() || !found->is_string()) return std::nullopt;
  return found->get<std::string>();
}

bool listsPlatform(const ZRVJSON& entry, const std::string& platform) {
  auto only = entry.find("only");
  if (only == entry.end() || !only->is_array()) return false;
  return std::any_of(only->begin(), only->end(),
                     [&](const ZRVJSON& word) { return word.is_string() && word.get<std::string>() == platform; });
}

}  // namespace

GameManifest gameFilesOf(const ZRVJSON& manifest, const std::string& platform) {
  GameManifest game;
  if (!manifest.is_object()) return game;
  for (const auto& [name, entry] : manifest.items()) {
    if (!entry.is_object() || !listsPlatform(entry, platform)) continue;
    auto hash = textMember(entry, "hash");
    auto compHash = textMember(entry, "compHash");
    auto download = textMember(entry, "dl");
    if (!hash || !compHash || !download) continue;
    if (!staysInside(name)) {
      game.refusedNames.push_back(name);
      continue;
    }
    ManifestFile file{name, *hash, *compHash, *download, {}, false};
    if (auto patches = entry.find("patches"); patches != entry.end()) {
      file.updated = true;
      if (patches->is_object()) {
        for (const auto& [source, patch] : patches->items()) {
          if (auto filename = patch.is_object() ? textMember(patch, "filename") : std::nullopt) {
            file.patchFiles.push_back(*filename);
          }
        }
      }
    }
    game.files.push_back(std::move(file));
  }
  return game;
}

ManifestFetch fetchGameManifest(std::chrono::milliseconds idleTimeout) {
  ManifestFetch fetch;
  bool development = ZRVGlobals::defaultGlobals().isDeveloperLauncher();
  auto endpoints = ZRVPatcher::defaultPatcher().baseUrls();
  const ZRVURL& url = endpoints.at(development ? "development-manifest" : "production-manifest");
  fetch.url = url.absoluteString();
  ZRVHTTPRequest request = ZRVHTTPRequest::GET(url);
  request.maxBodySize = ZRVPatcher::kMaxDocumentSize;
  request.idleTimeout = std::min(request.idleTimeout, idleTimeout);
  ZRVHTTPResult result = ZRVHTTPClient::sharedClient().sendSynchronousRequest(request);
  if (!result.body) {
    fetch.problem = result.error ? result.error->localizedDescription() : "no answer";
    return fetch;
  }
  fetch.reached = true;
  auto document = parseManifestDocument(*result.body);
  if (!document) {
    long status = result.response ? result.response->statusCode : 0;
    fetch.problem = "the answer (HTTP status " + std::to_string(status) + ") is not a manifest";
    return fetch;
  }
  fetch.manifest = gameFilesOf(*document, ZRVPatcher::defaultPatcher().platform());
  return fetch;
}

namespace {

// Closes a descriptor when it goes out of scope.
struct Descriptor {
  int fd = -1;
  explicit Descriptor(int descriptor) : fd(descriptor) {}
  ~Descriptor() {
    if (fd >= 0) ::close(fd);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
};

// Walks from the install folder down the name's folders, making each that is missing. Every step opens the
// next folder relative to the one before with O_NOFOLLOW, so a link on the way stops the walk instead of
// leading out of the install.
std::optional<std::string> createFolderChain(int installFolder, const fs::path& folder) {
  Descriptor current(::dup(installFolder));
  if (current.fd < 0) return std::string(std::strerror(errno));
  for (const auto& part : folder) {
    std::string component = part.string();
    if (component.empty() || component == ".") continue;
    if (::mkdirat(current.fd, component.c_str(), 0755) != 0 && errno != EEXIST) {
      return component + ": " + std::strerror(errno);
    }
    int next = ::openat(current.fd, component.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (next < 0) {
      int error = errno;
      return component + (error == ELOOP || error == ENOTDIR ? std::string(": is a link or not a folder")
                                                              : ": " + std::string(std::strerror(error)));
    }
    ::close(current.fd);
    current.fd = next;
  }
  return std::nullopt;
}

}  // namespace

std::vector<std::string> createFoldersFor(const fs::path& install, const std::vector<std::string>& names) {
  std::vector<std::string> problems;
  Descriptor base(::open(install.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (base.fd < 0) {
    problems.push_back(install.string() + ": " + std::strerror(errno));
    return problems;
  }
  std::unordered_set<std::string> made;  // a manifest names tens of thousands of files in far fewer folders
  for (const auto& name : names) {
    if (!staysInside(name)) continue;
    fs::path folder = fs::path(name).parent_path();
    if (folder.empty() || made.count(folder.string())) continue;
    if (auto problem = createFolderChain(base.fd, folder)) {
      problems.push_back(name + ": cannot make its folder (" + *problem + ")");
    } else {
      made.insert(folder.string());
    }
  }
  return problems;
}
