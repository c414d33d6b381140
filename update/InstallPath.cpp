#include "update/InstallPath.h"

#include <algorithm>
#include <cstdio>
#include <string>

namespace fs = std::filesystem;

namespace zrv::update {

bool isContainedName(std::string_view name) {
  if (name.empty() || name.front() == '/' || name.find('\0') != std::string_view::npos) return false;
  // "." names the folder it stands in: "." or "./" would make the install folder itself a game file.
  for (const auto& part : fs::path(std::string(name))) {
    if (part == ".." || part == ".") return false;
  }
  return true;
}

bool namesAFile(std::string_view name) { return isContainedName(name) && name.back() != '/'; }

bool resolvesInside(const fs::path& base, const fs::path& location) {
  std::error_code error;
  fs::path resolvedBase = fs::weakly_canonical(base, error);
  if (error) return false;
  fs::path resolved = fs::weakly_canonical(location, error);
  if (error) return false;
  auto [end, unused] = std::mismatch(resolvedBase.begin(), resolvedBase.end(), resolved.begin(), resolved.end());
  (void)unused;
  return end == resolvedBase.end();
}

bool readWholeFile(const fs::path& file, ZRVData& contents) {
  std::FILE* handle = std::fopen(file.c_str(), "rb");
  if (!handle) return false;
  contents.clear();
  std::uint8_t buffer[1 << 16];
  std::size_t count;
  while ((count = std::fread(buffer, 1, sizeof buffer, handle)) > 0) contents.insert(contents.end(), buffer, buffer + count);
  bool ok = !std::ferror(handle);
  std::fclose(handle);
  return ok;
}

}  // namespace zrv::update
