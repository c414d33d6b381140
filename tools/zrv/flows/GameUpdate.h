#pragma once
// Bringing an install up to date with ZRVPatcher, with the launcher's guarantees around it:
//  - before: the manifest the updater will use is read, and the folder of every file it names is made inside
//    the install (the updater makes none for a new file);
//  - during: progress from the bytes that really move; a stall guard gives up when, over the stall time-out,
//    no file finished and fewer bytes moved than a small floor rate allows (the updater never reports a file
//    that failed on every mirror);
//  - after: every file is checked against the manifest's SHA-1; a bad one is fetched again from the mirrors
//    that did not deliver it, and checked again. The run succeeds only when every file matches.

#include <ZRVKit/ZRVJSON.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

struct GameUpdateRequest {
  static constexpr std::chrono::seconds kDefaultStallTimeout{120};

  std::filesystem::path install;
  /// Zero turns the stall guard off.
  std::chrono::seconds stallTimeout = kDefaultStallTimeout;
  /// One status line redrawn in place (a terminal) rather than one plain line per event.
  bool statusLine = false;
  /// Print nothing while it runs (the caller prints the outcome, e.g. as JSON).
  bool quiet = false;
};

/// A file that differs from the manifest after the update and every repair.
struct BadFile {
  std::string name;
  std::string expected;  ///< the manifest's SHA-1
  std::string found;     ///< the SHA-1 on disk, or "missing"
  std::uintmax_t size = 0;
  std::string servedBy;  ///< the mirror that delivered the bad copy last, when known
  std::optional<long> status;  ///< its HTTP status

  /// "data/a.bin: expected 3f…, found da39…, 0 bytes, served by http://…/content/ with status 404"
  std::string line() const;
};

struct GameUpdateResult {
  enum class Outcome { upToDate, failed, unreachable };
  Outcome outcome = Outcome::failed;
  /// "Everything is up to date", or why not.
  std::string message;
  std::vector<BadFile> badFiles;
  /// Further lines that explain a failure (files in flight at a stall, refused names, folders not made).
  std::vector<std::string> details;
  std::size_t filesChecked = 0;
  std::size_t filesRepaired = 0;

  bool upToDate() const { return outcome == Outcome::upToDate; }
  /// 0 up to date, 3 no server could be reached, 1 otherwise.
  int exitCode() const;
  /// {"upToDate", "outcome", "message", "filesChecked", "filesRepaired", "badFiles": [...], "details": [...]}
  ZRVJSON document() const;
};

/// Runs the update, pumping the main queue, and checks the result.
GameUpdateResult updateGame(const GameUpdateRequest& request);
