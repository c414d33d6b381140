#include "zip/FolderWalk.h"

#include <ZRVKit/ZRVLog.h>

#include <sys/stat.h>

#include <algorithm>
#include <utility>

namespace zrv::zip {

namespace fs = std::filesystem;

namespace {

using FolderIdentity = std::pair<dev_t, ino_t>;

bool collect(const fs::path& folder, std::vector<FolderIdentity>& walking, std::vector<fs::path>& files) {
  std::error_code error;
  for (fs::directory_iterator items(folder, error), end; !error && items != end; items.increment(error)) {
    const fs::path& item = items->path();
    struct stat target {};
    if (::stat(item.c_str(), &target) != 0) continue;  // a link that leads nowhere
    if (S_ISREG(target.st_mode)) {
      files.push_back(item);
    } else if (S_ISDIR(target.st_mode)) {
      const FolderIdentity identity{target.st_dev, target.st_ino};
      if (std::find(walking.begin(), walking.end(), identity) != walking.end()) {
        ZRVLog::format("[SSZipArchive] Not following \"%@\": it leads back into a folder being archived.", item);
        continue;
      }
      walking.push_back(identity);
      const bool read = collect(item, walking, files);
      walking.pop_back();
      if (!read) return false;
    }
  }
  return !error;
}

}  // namespace

std::optional<std::vector<fs::path>> filesBelow(const fs::path& folder) {
  struct stat top {};
  if (::stat(folder.c_str(), &top) != 0 || !S_ISDIR(top.st_mode)) return std::nullopt;
  std::vector<FolderIdentity> walking{{top.st_dev, top.st_ino}};
  std::vector<fs::path> files;
  if (!collect(folder, walking, files)) return std::nullopt;
  std::sort(files.begin(), files.end());
  return files;
}

}  // namespace zrv::zip
