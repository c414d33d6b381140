#include "update/UpdateServer.h"

#include <ZRVKit/ZRVExtensions.h>
#include <ZRVKit/ZRVHosts.h>

#include "support/TemporaryDirectory.h"
#include "tests/update/PatchBuilder.h"

#include <cstdlib>
#include <stdexcept>

std::string bzip2(const std::string& data) {
  const ZRVData compressed = bzip2(ZRVData(data.begin(), data.end()));
  return std::string(compressed.begin(), compressed.end());
}

std::string sha1(const std::string& data) {
  return ZRVExtensions::sha1Hash(reinterpret_cast<const std::uint8_t*>(data.data()), data.size());
}

std::string makePatch(const std::string& before, const std::string& after) {
  TemporaryDirectory folder;
  writeFile(folder / "old", before);
  writeFile(folder / "new", after);
  std::string command = "bsdiff '" + (folder / "old").string() + "' '" + (folder / "new").string() + "' '" +
                        (folder / "patch").string() + "'";
  if (std::system(command.c_str()) != 0) throw std::runtime_error("bsdiff failed");
  return readFile(folder / "patch");
}

UpdateServer::UpdateServer() { ZRVHosts::setRedirect(server_.baseAddress()); }

UpdateServer::~UpdateServer() { ZRVHosts::setRedirect(std::nullopt); }

ZRVJSON& UpdateServer::publish(const std::string& name, const std::string& contents) {
  contents_[name] = contents;
  std::string compressed = bzip2(contents);
  std::string download = "files/" + name + ".bz2";
  server_.on("GET", "/content/" + download, ScriptedResponse::text(compressed));
  manifest[name] = {{"only", {"linux", "darwin"}},
                    {"hash", sha1(contents)},
                    {"compHash", sha1(compressed)},
                    {"dl", download},
                    {"patches", ZRVJSON::object()}};
  return manifest[name];
}

void UpdateServer::addPatch(const std::string& name, const std::string& before,
                            std::optional<std::string> compPatchHash, std::optional<std::string> patchBytes) {
  std::string patch = patchBytes.value_or(makePatch(before, contents_.at(name)));
  std::string compressed = bzip2(patch);
  std::string file = "patches/" + sha1(before).substr(0, 8) + "-" + name + ".bz2";
  server_.on("GET", "/content/" + file, ScriptedResponse::text(compressed));
  manifest[name]["patches"][sha1(before)] = {
      {"filename", file}, {"patchHash", sha1(patch)}, {"compPatchHash", compPatchHash.value_or(sha1(compressed))}};
}

void UpdateServer::serveFramework(const std::string& binary) {
  TemporaryDirectory archive;
  writeFile(archive / "Cg.framework" / "Cg", binary);
  std::string command = "cd '" + archive.path().string() + "' && zip -qr Cg.framework.zip Cg.framework";
  if (std::system(command.c_str()) != 0) throw std::runtime_error("zip failed");
  server_.on("GET", "/launcher/mac/aditional-libraries/Cg.framework.zip",
             ScriptedResponse::text(readFile(archive / "Cg.framework.zip")));
}

void UpdateServer::serveManifestAndMirrors() {
  server_.on("GET", "/content/patchmanifest.txt", ScriptedResponse::json(manifest.dump()));
  server_.on("GET", "/api/mirrors", ScriptedResponse::json(ZRVJSON::array({base() + "/content/"}).dump()));
}
