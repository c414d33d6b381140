#pragma once
// The demo's sample game: two builds of a small game, the extra framework archive the update fetches, the
// frameworks archive a launcher ships, and the settings file the game writes on its first start.

#include <filesystem>

namespace demo {

/// Writes build 1 and build 2 of the sample game into `v1` and `v2`. The game itself ("Quillmoor") is a
/// shell program that prints what the launcher handed it and exits with status 0. Between the builds some
/// files change (patched), one is new (downloaded whole) and some stay as they are.
void writeSampleBuilds(const std::filesystem::path& v1, const std::filesystem::path& v2);

/// The Cg.framework archive the content host serves.
void writeFrameworkArchive(const std::filesystem::path& archive);

/// The launcher's own "Frameworks.zip", unpacked into the container when the game is first started.
void writeLauncherFrameworks(const std::filesystem::path& archive);

/// The game's settings file, as the game writes it on its first start.
void writeGameSettings(const std::filesystem::path& file);

}  // namespace demo
