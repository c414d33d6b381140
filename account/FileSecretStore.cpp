// Saved logins in a private file, for systems where no Secret Service answers on the session bus.
// The file is <data folder>/Quillmoor Launcher/saved-logins.json, mode 0600 in a folder of mode 0700, and is
// replaced atomically. A folder or file that is a link, belongs to someone else or is open to group or
// others is not used at all: the store then answers as if it were empty and refuses to write.

#include "account/SecretStore.h"

#include <ZRVKit/ZRVGlobals.h>
#include <ZRVKit/ZRVBoundedJSON.h>
#include <ZRVKit/ZRVJSON.h>
#include <ZRVKit/ZRVLog.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>

namespace zrv::account {

namespace fs = std::filesystem;

namespace {

constexpr const char* kFolderName = "Quillmoor Launcher";
constexpr const char* kFileName = "saved-logins.json";
// A handful of cookies; anything much larger is not our file.
constexpr std::size_t kMaxFileSize = 1 << 20;

struct Item {
  std::string service;
  std::string account;
  std::string secret;
};

bool sameKey(const Item& item, const std::string& service, const std::optional<std::string>& account) {
  return item.service == service && (!account || item.account == *account);
}

class FileDescriptor {
 public:
  explicit FileDescriptor(int fd = -1) : fd_(fd) {}
  ~FileDescriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }

 private:
  int fd_;
};

void refuse(const char* operation, const std::string& why) { ZRV_LOG_METHOD_ERROR("FileSecretStore", operation, why); }

// Why `info` may not hold secrets, or "" when it may.
std::string unsafeBecause(const struct stat& info, const std::string& what) {
  if (info.st_uid != geteuid()) return what + " belongs to another user";
  if (info.st_mode & (S_IRWXG | S_IRWXO)) return what + " is open to group or others";
  return {};
}

class FileSecretStore final : public SecretStore {
 public:
  std::string name() const override { return "file"; }

  SecretStatus copyMatching(const SecretQuery& query, SecretMatch* result) override {
    std::lock_guard lock(mutex_);
    auto folder = openFolder("copyMatching", false);
    if (!folder) return SecretStatus::failure;
    if (!*folder) return SecretStatus::itemNotFound;
    flock(folder->get(), LOCK_SH);
    auto items = readItems(folder->get(), "copyMatching");
    if (!items) return SecretStatus::failure;
    SecretMatch match;
    bool found = false;
    for (const Item& item : *items) {
      if (!sameKey(item, query.service, query.account)) continue;
      if (query.returnData && !found) match.data = item.secret;
      if (query.returnAttributes) match.accounts.push_back(item.account);
      found = true;
      if (!query.matchAll) break;
    }
    if (result) *result = std::move(match);
    return found ? SecretStatus::success : SecretStatus::itemNotFound;
  }

  SecretStatus add(const std::string& service, const std::string& account, const std::string& secret) override {
    return change("add", [&](std::vector<Item>& items) {
      if (std::any_of(items.begin(), items.end(), [&](const Item& item) { return sameKey(item, service, account); })) {
        return SecretStatus::duplicateItem;
      }
      items.push_back({service, account, secret});
      return SecretStatus::success;
    });
  }

  SecretStatus update(const std::string& service, const std::string& account, const std::string& secret) override {
    return change("update", [&](std::vector<Item>& items) {
      auto found = std::find_if(items.begin(), items.end(), [&](const Item& item) { return sameKey(item, service, account); });
      if (found == items.end()) return SecretStatus::itemNotFound;
      found->secret = secret;
      return SecretStatus::success;
    });
  }

  SecretStatus remove(const SecretQuery& query) override {
    return change("remove", [&](std::vector<Item>& items) {
      auto kept = std::remove_if(items.begin(), items.end(),
                                 [&](const Item& item) { return sameKey(item, query.service, query.account); });
      if (kept == items.end()) return SecretStatus::itemNotFound;
      items.erase(kept, items.end());
      return SecretStatus::success;
    });
  }

 private:
  // The checked folder; an empty descriptor when it does not exist and `create` is false; nothing when refused.
  std::optional<FileDescriptor> openFolder(const char* operation, bool create) {
    auto support = ZRVGlobals::applicationSupportDirectory();
    if (!support) {
      refuse(operation, "there is no user data folder for the saved-login file");
      return std::nullopt;
    }
    fs::path folder = *support / kFolderName;
    if (create && ::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
      refuse(operation, "cannot create " + folder.string() + ": " + std::strerror(errno));
      return std::nullopt;
    }
    FileDescriptor fd(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!fd) {
      if (errno == ENOENT && !create) return std::optional<FileDescriptor>(std::in_place);
      refuse(operation, errno == ELOOP || errno == ENOTDIR ? folder.string() + " is not a plain folder"
                                                           : "cannot open " + folder.string() + ": " + std::strerror(errno));
      return std::nullopt;
    }
    struct stat info {};
    if (fstat(fd.get(), &info) != 0) return std::nullopt;
    if (std::string why = unsafeBecause(info, folder.string()); !why.empty()) {
      refuse(operation, why);
      return std::nullopt;
    }
    return std::optional<FileDescriptor>(std::in_place, ::dup(fd.get()));
  }

  // The items of the file (none when there is no file yet); nothing when the file may not be used.
  std::optional<std::vector<Item>> readItems(int folder, const char* operation) {
    FileDescriptor fd(::openat(folder, kFileName, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!fd) {
      if (errno == ENOENT) return std::vector<Item>{};
      refuse(operation, errno == ELOOP ? std::string(kFileName) + " is a symbolic link"
                                       : std::string("cannot open ") + kFileName + ": " + std::strerror(errno));
      return std::nullopt;
    }
    struct stat info {};
    if (fstat(fd.get(), &info) != 0 || !S_ISREG(info.st_mode)) {
      refuse(operation, std::string(kFileName) + " is not a regular file");
      return std::nullopt;
    }
    if (std::string why = unsafeBecause(info, kFileName); !why.empty()) {
      refuse(operation, why);
      return std::nullopt;
    }
    if (static_cast<std::size_t>(info.st_size) > kMaxFileSize) {
      refuse(operation, std::string(kFileName) + " is too large");
      return std::nullopt;
    }
    std::string text(static_cast<std::size_t>(info.st_size), '\0');
    std::size_t filled = 0;
    while (filled < text.size()) {
      ssize_t got = ::read(fd.get(), text.data() + filled, text.size() - filled);
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) break;
      filled += static_cast<std::size_t>(got);
    }
    text.resize(filled);
    ZRVJSON document = ZRVBoundedJSON::read(text).document.value_or(nullptr);
    std::vector<Item> items;
    const ZRVJSON* list = document.is_object() && document.contains("items") ? &document["items"] : nullptr;
    if (!list || !list->is_array()) {
      refuse(operation, std::string(kFileName) + " is not a saved-login file");
      return std::nullopt;
    }
    for (const ZRVJSON& entry : *list) {
      if (!entry.is_object()) continue;
      auto text_of = [&](const char* key) {
        auto member = entry.find(key);
        return member != entry.end() && member->is_string() ? member->get<std::string>() : std::string();
      };
      items.push_back({text_of("service"), text_of("account"), text_of("secret")});
    }
    return items;
  }

  bool writeItems(int folder, std::vector<Item> items, const char* operation) {
    std::sort(items.begin(), items.end(), [](const Item& a, const Item& b) {
      return std::tie(a.service, a.account) < std::tie(b.service, b.account);
    });
    ZRVJSON list = ZRVJSON::array();
    for (const Item& item : items) {
      list.push_back({{"service", item.service}, {"account", item.account}, {"secret", item.secret}});
    }
    std::string text;
    try {
      text = ZRVJSON{{"items", std::move(list)}}.dump(2) + "\n";
    } catch (const ZRVJSON::exception&) {
      refuse(operation, "a saved login is not valid UTF-8");
      return false;
    }

    static std::atomic<unsigned> counter{0};
    // Built piecewise: GCC 12 at -O3 reports a false -Wrestrict for "." + std::string(...).
    std::string temporary = ".";
    temporary += kFileName;
    temporary += "." + std::to_string(getpid()) + "." + std::to_string(counter++);
    FileDescriptor fd(::openat(folder, temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!fd) {
      refuse(operation, std::string("cannot write the saved-login file: ") + std::strerror(errno));
      return false;
    }
    bool written = fchmod(fd.get(), 0600) == 0;
    for (std::size_t done = 0; written && done < text.size();) {
      ssize_t put = ::write(fd.get(), text.data() + done, text.size() - done);
      if (put < 0 && errno == EINTR) continue;
      if (put <= 0) written = false;
      else done += static_cast<std::size_t>(put);
    }
    written = written && fsync(fd.get()) == 0 && renameat(folder, temporary.c_str(), folder, kFileName) == 0;
    if (!written) {
      refuse(operation, std::string("cannot write the saved-login file: ") + std::strerror(errno));
      unlinkat(folder, temporary.c_str(), 0);
      return false;
    }
    fsync(folder);
    return true;
  }

  template <class Change>
  SecretStatus change(const char* operation, Change&& apply) {
    std::lock_guard lock(mutex_);
    auto folder = openFolder(operation, true);
    if (!folder || !*folder) return SecretStatus::failure;
    // Other launcher processes read and write the same file.
    flock(folder->get(), LOCK_EX);
    auto items = readItems(folder->get(), operation);
    if (!items) return SecretStatus::failure;
    SecretStatus status = apply(*items);
    if (status != SecretStatus::success) return status;
    return writeItems(folder->get(), std::move(*items), operation) ? SecretStatus::success : SecretStatus::failure;
  }

  std::mutex mutex_;
};

}  // namespace

SecretStore& fileSecretStore() {
  static auto* store = new FileSecretStore();
  return *store;
}

}  // namespace zrv::account
