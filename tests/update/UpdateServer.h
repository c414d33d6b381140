#pragma once
// A loopback content server for update tests: a manifest, mirror lists and the files and patches they name.

#include <ZRVKit/ZRVData.h>
#include <ZRVKit/ZRVJSON.h>

#include "support/LoopbackServer.h"

#include <filesystem>
#include <string>

/// bzip2 of `data` (whole-file downloads and patches travel compressed).
std::string bzip2(const std::string& data);
/// A BSDIFF40 patch from `before` to `after`, made by Debian's bsdiff.
std::string makePatch(const std::string& before, const std::string& after);
std::string sha1(const std::string& data);

class UpdateServer {
 public:
  UpdateServer();
  ~UpdateServer();

  LoopbackServer& server() { return server_; }
  std::string base() const { return server_.baseAddress(); }

  /// Publishes `name` with `contents` as a whole bzip2 file under content/, listed for "darwin".
  ZRVJSON& publish(const std::string& name, const std::string& contents);
  /// Adds a patch from `before` to the published contents of `name`; `compPatchHash` overrides the real one.
  void addPatch(const std::string& name, const std::string& before, std::optional<std::string> compPatchHash = {},
                std::optional<std::string> patchBytes = {});
  /// Serves the Cg framework as a zip (made by Info-ZIP) holding `Cg.framework/Cg` with `binary`.
  void serveFramework(const std::string& binary);
  /// Serves the manifest as built so far (call after publishing) and a primary list naming content/.
  void serveManifestAndMirrors();

  ZRVJSON manifest = ZRVJSON::object();

 private:
  LoopbackServer server_;
  std::map<std::string, std::string> contents_;
};
