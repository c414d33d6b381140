#pragma once
// Archives made entry by entry with minizip, so that tests control names, attributes, methods and dates.

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
