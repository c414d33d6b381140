#pragma once
// The launcher's own reading of the patch manifest: the same document the updater reads (same endpoint,
// server type and host redirect), reduced to the files this platform's updater works on.

#include <ZRVKit/ZRVData.h>
#include <ZRVKit/ZRVJSON.h>

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

struct ManifestFile {
  std::string name;      ///< relative to the install folder, "/" between folders
  std::string hash;      ///< SHA-1 of the correct content
  std::string compHash;  ///< SHA-1 of the compressed whole file
  std::string download;  ///< "dl": the compressed whole file's name on the mirrors, percent-encoded
  std::vector<std::string> patchFiles;  ///< every patch's "filename"
  bool updated = true;   ///< the entry has "patches": the updater works on it and reports its end
};

struct GameManifest {
  std::vector<ManifestFile> files;
  /// Names of this platform that would leave the install folder (absolute, or climbing with "..").
  std::vector<std::string> refusedNames;
};

/// Parses a manifest body; nothing when it is not a JSON object. The one place the launcher parses it.
std::optional<ZRVJSON> parseManifestDocument(const ZRVData& body);

/// True for a relative name that stays inside its folder: not absolute, no "..", no NUL, not empty.
bool staysInside(const std::string& name);

/// The entries the updater turns into files for `platform`: "only" holds it and "hash", "compHash" and "dl"
/// are texts.
GameManifest gameFilesOf(const ZRVJSON& manifest, const std::string& platform);

struct ManifestFetch {
  std::string url;
  std::optional<GameManifest> manifest;
  /// A body arrived (whatever it held): the server could be reached.
  bool reached = false;
  /// Why there is no manifest.
  std::string problem;
};

/// Reads the manifest the updater will read, with the given idle time-out.
ManifestFetch fetchGameManifest(std::chrono::milliseconds idleTimeout);

/// Creates the folder of every name inside `install`, never following a link and never leaving it. Returns
/// one line per folder that could not be made.
std::vector<std::string> createFoldersFor(const std::filesystem::path& install, const std::vector<std::string>& names);
