#include "update/InstallCleanup.h"

#include "update/FolderListing.h"
#include "update/InstallFolder.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <optional>
#include <set>
#include <vector>

namespace fs = std::filesystem;

namespace zrv::update {

namespace {

// Deeper than any game's folders; a tree deeper than this is left alone rather than walked without end.
constexpr int kMaxDepth = 64;

struct Entry {
  std::string name;
  unsigned char type;  // DT_REG, DT_DIR, ... as the listing gives it; DT_UNKNOWN where the file system does not
};

// Every name the library leaves behind starts with a dot (the framework archive is looked for by name), so
// a name without one is never a leftover: only whether it is a folder to walk into matters, and the listing
// says so without a look at each file (a game's install holds tens of thousands of them).
bool mayBeLeftover(std::string_view name) { return name[0] == '.'; }

// The entries the walk has to consider: possible leftovers and folders (and what the listing cannot type).
std::vector<Entry> entriesToConsider(int folder) {
  std::vector<Entry> entries;
  listFolder(folder, [&](std::string_view name, unsigned char type) {
    if (mayBeLeftover(name) || type == DT_DIR || type == DT_UNKNOWN) entries.push_back({std::string(name), type});
  });
  return entries;
}

std::vector<std::string> namesIn(int folder) {
  std::vector<std::string> names;
  listFolder(folder, [&](std::string_view name, unsigned char) { names.emplace_back(name); });
  return names;
}

bool allOf(const std::string& text, std::size_t from, std::size_t to, bool (*accept)(char)) {
  if (from >= to) return false;
  for (std::size_t i = from; i < to; ++i) {
    if (!accept(text[i])) return false;
  }
  return true;
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isTemplateCharacter(char c) { return isDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

// ".NAME.PID.N.partial" of a process that no longer runs.
bool isAbandonedPartial(const std::string& name) {
  static const std::string kSuffix = ".partial";
  if (name.size() <= kSuffix.size() + 5 || name[0] != '.' || name.compare(name.size() - kSuffix.size(), kSuffix.size(), kSuffix) != 0) {
    return false;
  }
  std::size_t counterEnd = name.size() - kSuffix.size();
  std::size_t counterDot = name.rfind('.', counterEnd - 1);
  if (counterDot == std::string::npos || counterDot == 0 || !allOf(name, counterDot + 1, counterEnd, isDigit)) return false;
  std::size_t pidDot = name.rfind('.', counterDot - 1);
  if (pidDot == std::string::npos || pidDot == 0 || !allOf(name, pidDot + 1, counterDot, isDigit)) return false;
  if (counterDot - pidDot > 10) return false;
  pid_t pid = static_cast<pid_t>(std::strtol(name.c_str() + pidDot + 1, nullptr, 10));
  if (pid == ::getpid()) return false;
  return pid <= 0 || (::kill(pid, 0) != 0 && errno == ESRCH);
}

// ".NAME.XXXXXX" beside NAME: the temporary file of an atomic write of NAME. The name carries no process, so
// one written to in the last minute may be a write in progress (the launcher saving its options) and stays.
bool isAbandonedAtomicWrite(const std::string& name, const struct stat& info, const std::set<std::string>& siblings) {
  if (name.size() < 9 || name[0] != '.' || name[name.size() - 7] != '.') return false;
  if (std::time(nullptr) - info.st_mtime < 60) return false;
  if (!allOf(name, name.size() - 6, name.size(), isTemplateCharacter)) return false;
  return siblings.count(name.substr(1, name.size() - 8)) > 0;
}

std::size_t clearBelow(int folder, int depth, bool atTop) {
  if (depth > kMaxDepth) return 0;
  std::size_t removed = 0;
  std::optional<std::set<std::string>> siblings;  // made on first need: most folders hold no candidate
  for (const Entry& entry : entriesToConsider(folder)) {
    const std::string& name = entry.name;
    bool isFolder = entry.type == DT_DIR;
    if (mayBeLeftover(name) || entry.type == DT_UNKNOWN) {
      struct stat info {};
      if (::fstatat(folder, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) continue;
      isFolder = S_ISDIR(info.st_mode);
      if (!siblings && S_ISREG(info.st_mode) && mayBeLeftover(name)) {
        const std::vector<std::string> names = namesIn(folder);
        siblings.emplace(names.begin(), names.end());
      }
      bool leftover = isAbandonedPartial(name) || (isFolder && name == ".tmp") ||
                      (S_ISREG(info.st_mode) && mayBeLeftover(name) && isAbandonedAtomicWrite(name, info, *siblings));
      if (leftover) {
        if (removeTreeIn(folder, name)) ++removed;
        continue;
      }
    }
    if (!isFolder) continue;
    int below = ::openat(folder, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (below < 0) continue;
    Descriptor held(below);
    if (atTop && name == "Frameworks") {
      struct stat archive {};
      if (::fstatat(below, "Cg.framework.zip", &archive, AT_SYMLINK_NOFOLLOW) == 0 &&
          ::unlinkat(below, "Cg.framework.zip", 0) == 0) {
        ++removed;
      }
    }
    removed += clearBelow(below, depth + 1, false);
  }
  return removed;
}

}  // namespace

bool removeTreeIn(int folder, const std::string& name) {
  if (::unlinkat(folder, name.c_str(), 0) == 0) return true;
  if (errno != EISDIR && errno != EPERM) return errno == ENOENT;
  int below = ::openat(folder, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (below < 0) return false;
  {
    Descriptor held(below);
    for (const std::string& inner : namesIn(below)) removeTreeIn(below, inner);
  }
  return ::unlinkat(folder, name.c_str(), AT_REMOVEDIR) == 0 || errno == ENOENT;
}

std::size_t clearLeftovers(const fs::path& install) {
  auto top = openInstallFolder(install, {}, false);
  if (!top) return 0;
  return clearBelow(top->get(), 0, true);
}

}  // namespace zrv::update
