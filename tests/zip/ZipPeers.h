#pragma once
// The independent zip implementations that archives are checked against: Info-ZIP's zip/unzip, 7-Zip and
// Python's zipfile, each driven through its command line.

#include <filesystem>
#include <string>
#include <vector>

struct ZipPeer {
  std::string name;
  /// Writes `archive` from everything inside `folder` (names relative to it), compressing fast.
  int (*archiveFolder)(const std::filesystem::path& archive, const std::filesystem::path& folder);
  /// The peer's own integrity test of every entry (sizes and checksums): 0 when it passes.
  int (*test)(const std::filesystem::path& archive);
  /// Unpacks `archive` into `destination`: 0 when every entry was unpacked.
  int (*extract)(const std::filesystem::path& archive, const std::filesystem::path& destination);
};

const std::vector<ZipPeer>& zipPeers();

/// Whether two files hold the same bytes (compared by `cmp`, which reads large files fast).
bool sameContents(const std::filesystem::path& one, const std::filesystem::path& other);
