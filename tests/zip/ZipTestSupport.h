#pragma once
// Archives made entry by entry with minizip, so that tests control names, attributes, methods and dates; the
// independent zip implementations that archives are checked against: Info-ZIP's zip/unzip, 7-Zip and Python's
// zipfile, each driven through its command line.

#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

struct CraftedEntry {
  std::string name;
  std::string data;
  int method = 8;                    ///< 0 stored, 8 deflated
  unsigned long externalAttributes = 0;
  unsigned long dosDate = 0x58A16410;  ///< 2024-05-01 12:32:32
};

/// Writes the entries, in order, into a new archive at `archive`.
void craftArchive(const std::filesystem::path& archive, const std::vector<CraftedEntry>& entries);

/// Runs a shell command line; returns its exit status.
int runCommand(const std::string& commandLine);
/// The path in single quotes for a shell command line.
std::string quoted(const std::filesystem::path& path);

/// Every item below `root` as "relative path: type mode mtime [contents|target]", sorted, for comparing trees.
std::vector<std::string> describeTree(const std::filesystem::path& root);

/// Sets the modification time of `path` itself (a link is not followed).
void setModificationTime(const std::filesystem::path& path, std::time_t seconds);
/// The modification time of `path` itself.
std::time_t modificationTime(const std::filesystem::path& path);

/// The moment of a local date and time, as a zip entry's DOS date means it.
std::time_t localTime(int year, int month, int day, int hour, int minute, int second);

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
