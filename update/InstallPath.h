#pragma once
// Where update files may be written: always inside the install folder, never through a link out of it.

#include <ZRVKit/ZRVData.h>

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace zrv::update {

/// True for a relative name ("a/b.bin") that stays inside its base folder: not absolute, no "." or "..", no NUL.
bool isContainedName(std::string_view name);

/// True for a contained name that names a file, not a folder ("maps/" names a folder).
bool namesAFile(std::string_view name);

/// True when `location`, with every link on the way resolved, lies inside `base` (also resolved).
bool resolvesInside(const std::filesystem::path& base, const std::filesystem::path& location);

/// `resolvesInside(base, base / name)` for the many names of one manifest, at a fraction of the cost: the
/// install folder is resolved once, and each folder named below it once, listed once as well. A name in a
/// folder whose listing holds no link needs no look of its own; elsewhere the name is looked at (lstat).
/// Whenever that cannot settle the answer (the name is a link, cannot be looked at, or is spelled
/// unusually) the whole location is resolved, as `resolvesInside` does, so the answers agree.
class InstallBoundary {
 public:
  explicit InstallBoundary(std::filesystem::path base);

  /// True when `base / name` resolves inside the install folder; for names that pass `isContainedName`.
  bool resolvesInside(std::string_view name);

 private:
  struct Folder {
    std::optional<std::filesystem::path> resolved;  // nothing when it cannot be resolved
    bool inside = false;
    bool holdsNoLink = false;  // listed whole and searchable, and no entry is a link (or of a type not given)
  };
  bool inside(const std::filesystem::path& resolved) const;
  /// The folder part of a plainly spelled name ("" for the install folder), resolved once.
  const Folder& folder(std::string_view name);

  const std::filesystem::path base_;
  std::optional<std::filesystem::path> resolvedBase_;
  std::unordered_map<std::string, Folder> folders_;
};

/// The whole file, or nothing when it cannot be read.
bool readWholeFile(const std::filesystem::path& file, ZRVData& contents);

}  // namespace zrv::update
