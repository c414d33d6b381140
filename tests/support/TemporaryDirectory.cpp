#include "support/TemporaryDirectory.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

TemporaryDirectory::TemporaryDirectory() {
  std::string pattern = (std::filesystem::temp_directory_path() / "zrvkit-test-XXXXXX").string();
  if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code error;
  // Tests may leave read-only folders behind; make them writable so that everything goes.
  for (auto it = std::filesystem::recursive_directory_iterator(path_, error);
       !error && it != std::filesystem::recursive_directory_iterator(); it.increment(error)) {
    if (it->is_directory(error) && !it->is_symlink(error)) {
      std::filesystem::permissions(it->path(), std::filesystem::perms::owner_all, std::filesystem::perm_options::add,
                                   error);
    }
  }
  std::filesystem::remove_all(path_, error);
}

ScopedEnvironment::ScopedEnvironment(std::string name, std::optional<std::string> value) : name_(std::move(name)) {
  if (const char* current = std::getenv(name_.c_str())) previous_ = current;
  value ? setenv(name_.c_str(), value->c_str(), 1) : unsetenv(name_.c_str());
}

ScopedEnvironment::~ScopedEnvironment() {
  previous_ ? setenv(name_.c_str(), previous_->c_str(), 1) : unsetenv(name_.c_str());
}

void writeFile(const std::filesystem::path& file, std::string_view contents) {
  if (file.has_parent_path()) std::filesystem::create_directories(file.parent_path());
  std::ofstream out(file, std::ios::binary | std::ios::trunc);
  out.write(contents.data(), static_cast<std::streamsize>(contents.size()));
}

unsigned modeOf(const std::filesystem::path& path) {
  struct stat info {};
  EXPECT_EQ(lstat(path.c_str(), &info), 0) << path;
  return info.st_mode & 07777;
}

std::string readFile(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  std::ostringstream contents;
  contents << in.rdbuf();
  return contents.str();
}
