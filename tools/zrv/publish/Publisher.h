#pragma once
// The publisher's side of an update: a patch manifest, the bzip2 whole files and the bzip2 patches from older
// builds, laid out as the content host serves them.
//
//   OUT/content/patchmanifest.txt
//   OUT/content/files/<name>.bz2
//   OUT/content/patches/<name>.<old hash>.bz2
//   OUT/mirrors.txt
//   OUT/launcher/mac/aditional-libraries/Cg.framework.zip   (when a framework archive is given)

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

struct PublishOptions {
  std::filesystem::path newBuild;
  std::filesystem::path output;
  std::vector<std::filesystem::path> olderBuilds;
  /// The platform words listed in every entry's "only".
  std::vector<std::string> platforms = {"darwin"};
  /// Written into mirrors.txt as the one mirror, "<baseURL>/content/", when no `mirrors` are given.
  std::string baseURL = "http://127.0.0.1:8080";
  /// The mirrors of mirrors.txt, in the order they are to be tried.
  std::vector<std::string> mirrors;
  std::optional<std::filesystem::path> frameworkArchive;
  /// Files published at once, each on a thread of its own; 0: one per core. The output is the same for any
  /// number.
  unsigned workers = 0;
  /// Memory the files being published may hold at once (a patch holds both contents, the old file's suffix
  /// array and its streams); a file that needs more is published alone.
  std::uintmax_t bytesInFlight = std::uintmax_t{1} << 30;
  /// Told about each file once it and every file before it are published, in the files' order, on the
  /// calling thread.
  std::function<void(const std::string& name, std::size_t patches)> progress;
};

struct PublishSummary {
  std::size_t files = 0;
  std::size_t patches = 0;
};

/// Files above this size are published whole only: a patch holds both contents in memory.
inline constexpr std::uintmax_t kMaxPatchedFileSize = std::uintmax_t{512} << 20;

/// Publishes the new build. Every file is written beside its place and renamed over it, so a server that
/// serves the tree meanwhile never hands out half a file; sizes are 64-bit throughout. Throws std::runtime_error with a clear message when a folder cannot be read or
/// the output cannot be written.
PublishSummary publishBuild(const PublishOptions& options);
