#pragma once
// Where update files may be written: always inside the install folder, never through a link out of it.

#include <ZRVKit/ZRVData.h>

#include <filesystem>
#include <string_view>

namespace zrv::update {

/// True for a relative name ("a/b.bin") that stays inside its base folder: not absolute, no "." or "..", no NUL.
bool isContainedName(std::string_view name);

/// True for a contained name that names a file, not a folder ("maps/" names a folder).
bool namesAFile(std::string_view name);

/// True when `location`, with every link on the way resolved, lies inside `base` (also resolved).
bool resolvesInside(const std::filesystem::path& base, const std::filesystem::path& location);

/// The whole file, or nothing when it cannot be read.
bool readWholeFile(const std::filesystem::path& file, ZRVData& contents);

}  // namespace zrv::update
