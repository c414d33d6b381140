#include "update/InstallPath.h"

#include "update/FolderListing.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <string>

namespace fs = std::filesystem;

namespace zrv::update {

bool isContainedName(std::string_view name) {
  if (name.empty() || name.front() == '/' || name.find('\0') != std::string_view::npos) return false;
  // "." names the folder it stands in: "." or "./" would make the install folder itself a game file. The
  // parts are those a path makes of the name: the texts between slashes, empty ones left out.
  for (std::size_t start = 0; start <= name.size();) {
    std::size_t end = std::min(name.find('/', start), name.size());
    std::string_view part = name.substr(start, end - start);
    if (part == ".." || part == ".") return false;
    start = end + 1;
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

namespace {

// "a/b/c.bin": no empty part, no trailing slash. Paths split such names exactly at their slashes, which the
// short cut of InstallBoundary relies on; other spellings take the long way.
bool isPlainlySpelled(std::string_view name) {
  return !name.empty() && name.front() != '/' && name.back() != '/' && name.find("//") == std::string_view::npos;
}

}  // namespace

InstallBoundary::InstallBoundary(fs::path base) : base_(std::move(base)) {
  std::error_code error;
  fs::path resolved = fs::weakly_canonical(base_, error);
  if (!error) resolvedBase_ = std::move(resolved);
}

bool InstallBoundary::inside(const fs::path& resolved) const {
  auto [end, unused] = std::mismatch(resolvedBase_->begin(), resolvedBase_->end(), resolved.begin(), resolved.end());
  (void)unused;
  return end == resolvedBase_->end();
}

namespace {

// True when `folder` can be searched and listed whole and none of its entries is a link: then a name in it
// is either an entry that is no link or not there at all (also where names are matched without regard to
// case), which is all a look at the name would tell.
bool holdsNoLink(const fs::path& folder) {
  FileDescriptor opened(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!opened) return false;
  struct stat info {};
  // Looking up "." needs the right to search the folder, as looking up any name in it does.
  if (::fstatat(opened.get(), ".", &info, AT_SYMLINK_NOFOLLOW) != 0) return false;
  bool noLink = true;
  const bool whole = listFolder(opened.get(), [&](std::string_view, unsigned char type) {
    if (type == DT_LNK || type == DT_UNKNOWN) noLink = false;
  });
  return whole && noLink;
}

}  // namespace

const InstallBoundary::Folder& InstallBoundary::folder(std::string_view name) {
  auto [found, added] = folders_.try_emplace(std::string(name));
  if (added) {
    std::error_code error;
    const fs::path spelled = name.empty() ? base_ : base_ / name;
    fs::path resolved = name.empty() ? *resolvedBase_ : fs::weakly_canonical(spelled, error);
    if (!error) {
      found->second.inside = inside(resolved);
      found->second.resolved = std::move(resolved);
      found->second.holdsNoLink = holdsNoLink(spelled);
    }
  }
  return found->second;
}

bool InstallBoundary::resolvesInside(std::string_view name) {
  if (!resolvedBase_) return false;
  if (isPlainlySpelled(name)) {
    // A file that is there and no link resolves to its resolved folder with its name appended; so does one
    // that is not there at all (the folder part resolves as far as it exists, the rest is appended as
    // spelled). Links, and failures other than "not there", are left to the full resolution below.
    const std::size_t slash = name.rfind('/');
    const std::string_view fileName = name.substr(slash == std::string_view::npos ? 0 : slash + 1);
    const Folder& parent = folder(slash == std::string_view::npos ? std::string_view() : name.substr(0, slash));
    bool settled = parent.resolved && parent.holdsNoLink;
    if (!settled && parent.resolved) {
      std::string location = base_.native();
      if (!location.empty() && location.back() != '/') location += '/';
      location += name;
      struct stat info {};
      const bool looked = ::lstat(location.c_str(), &info) == 0;
      settled = (looked && !S_ISLNK(info.st_mode)) || (!looked && errno == ENOENT);
    }
    // A file in a folder inside is inside; one in a folder outside may still be the install folder itself.
    if (settled) return parent.inside || inside(*parent.resolved / fileName);
  }
  std::error_code error;
  fs::path resolved = fs::weakly_canonical(base_ / name, error);
  return !error && inside(resolved);
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
