#pragma once
// A fresh folder under the system's temporary folder, removed with everything in it at the end of the test.

#include <filesystem>
#include <optional>
#include <string>

class TemporaryDirectory {
 public:
  TemporaryDirectory();
  ~TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path operator/(const std::filesystem::path& name) const { return path_ / name; }

 private:
  std::filesystem::path path_;
};

/// Sets an environment variable for the scope and restores its previous value (or absence) afterwards.
class ScopedEnvironment {
 public:
  ScopedEnvironment(std::string name, std::optional<std::string> value);
  ~ScopedEnvironment();
  ScopedEnvironment(const ScopedEnvironment&) = delete;
  ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

 private:
  std::string name_;
  std::optional<std::string> previous_;
};

/// Writes `contents` to `file`, creating its folder.
void writeFile(const std::filesystem::path& file, std::string_view contents);
/// The whole file as text ("" when it cannot be read).
std::string readFile(const std::filesystem::path& file);
/// The permission bits of `path` itself (a link is not followed).
unsigned modeOf(const std::filesystem::path& path);
