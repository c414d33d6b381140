// The same saved-login cases against both secret stores, and what only the file store does. The Secret Service
// cases run only against the throwaway keyring that scripts/run-tests.sh starts (ZRV_TEST_PRIVATE_KEYRING), never a
// user's own.

#include <ZRVKit/ZRVAuthenticator.h>

#include "account/SecretStore.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>

using namespace zrv::account;
namespace fs = std::filesystem;

// libsecret 0.20 leaks a few bytes each time it makes the proxy of a found item; not ours to fix. GLib has
// no frame pointers, so the leak's stack names libsecret only with the slow unwinder.
extern "C" const char* __lsan_default_suppressions() { return "leak:secret_item_new_for_dbus_path\n"; }
extern "C" const char* __asan_default_options() { return "fast_unwind_on_malloc=0"; }

namespace {

constexpr const char* kOtherService = "Another Game";

// A data folder of its own and the secret store chosen by its name.
class StoreFixture {
 protected:
  explicit StoreFixture(const std::string& store) : choice{"ZRV_SECRET_STORE", store} {}

  void save(const std::string& account, const std::string& cookie) {
    authenticator.setUsername(account);
    authenticator.setCookie(cookie);
    authenticator.saveLogin();
  }

  TemporaryDirectory home;
  ScopedEnvironment data{"XDG_DATA_HOME", home.path().string()};
  ScopedEnvironment choice;
  ZRVAuthenticator& authenticator = ZRVAuthenticator::defaultAuthenticator();
};

// Parameter: the store's name, as ZRV_SECRET_STORE chooses it.
class SavedLogins : public ::testing::TestWithParam<std::string>, protected StoreFixture {
 protected:
  SavedLogins() : StoreFixture(GetParam()) {}

  void SetUp() override {
    if (GetParam() != "file" && !std::getenv("ZRV_TEST_PRIVATE_KEYRING")) {
      GTEST_SKIP() << "needs the throwaway keyring of scripts/run-tests.sh";
    }
    if (GetParam() != "file" && !secretServiceAnswers()) GTEST_SKIP() << "no Secret Service answers on the session bus";
    clear();
  }
  void TearDown() override {
    if (!IsSkipped()) clear();
  }

  SecretStore& store() { return GetParam() == "file" ? fileSecretStore() : secretServiceStore(); }

  void clear() {
    for (const std::string& account : authenticator.loadSavedLogins()) authenticator.removeSavedLogin(account);
    store().remove(SecretQuery{.service = kOtherService, .account = std::nullopt});
  }

  std::optional<std::string> otherServiceSecret(const std::string& account) {
    SecretMatch match;
    const SecretQuery query{.service = kOtherService, .account = account, .returnData = true};
    if (store().copyMatching(query, &match) != SecretStatus::success) return std::nullopt;
    return match.data;
  }
};

INSTANTIATE_TEST_SUITE_P(Stores, SavedLogins, ::testing::Values("file", "secret-service"),
                         [](const auto& store) { return store.param == "file" ? "File" : "SecretService"; });

TEST_P(SavedLogins, AccountsAreListedByNameSavedOnceEachAndRemovedOneByOne) {
  EXPECT_EQ(ZRVAuthenticator::secretStoreName(), GetParam());
  EXPECT_TRUE(authenticator.loadSavedLogins().empty());
  EXPECT_EQ(authenticator.loadSavedPassword("bob"), std::nullopt);
  for (const char* account : {"carol", "alice", "Zoë", "bob"}) save(account, std::string("cookie of ") + account);
  save("bob", "second cookie");  // the same item, with the newer cookie
  EXPECT_EQ(authenticator.loadSavedLogins(), (std::vector<std::string>{"Zoë", "alice", "bob", "carol"}));
  EXPECT_EQ(authenticator.loadSavedPassword("Zoë"), "cookie of Zoë");
  EXPECT_EQ(authenticator.loadSavedPassword("bob"), "second cookie");

  authenticator.removeSavedLogin("alice");
  authenticator.removeSavedLogin("nobody");
  EXPECT_EQ(authenticator.loadSavedLogins(), (std::vector<std::string>{"Zoë", "bob", "carol"}));
  EXPECT_EQ(authenticator.loadSavedPassword("alice"), std::nullopt);
  EXPECT_EQ(authenticator.loadSavedPassword("carol"), "cookie of carol");
}

TEST_P(SavedLogins, ItemsOfAnotherServiceAreNeverSeen) {
  ASSERT_EQ(store().add(kOtherService, "bob", "their cookie"), SecretStatus::success);
  EXPECT_TRUE(authenticator.loadSavedLogins().empty());
  EXPECT_EQ(authenticator.loadSavedPassword("bob"), std::nullopt);
  authenticator.removeSavedLogin("bob");
  save("bob", "our cookie");
  EXPECT_EQ(authenticator.loadSavedPassword("bob"), "our cookie");
  EXPECT_EQ(otherServiceSecret("bob"), "their cookie");
}

TEST_P(SavedLogins, AddRefusesAnExistingItemAndUpdateAMissingOne) {
  EXPECT_EQ(store().update("Quillmoor", "bob", "x"), SecretStatus::itemNotFound);
  EXPECT_EQ(store().add("Quillmoor", "bob", "first"), SecretStatus::success);
  EXPECT_EQ(store().add("Quillmoor", "bob", "second"), SecretStatus::duplicateItem);
  EXPECT_EQ(authenticator.loadSavedPassword("bob"), "first");
  EXPECT_EQ(store().update("Quillmoor", "bob", "third"), SecretStatus::success);
  EXPECT_EQ(authenticator.loadSavedPassword("bob"), "third");
}

class FileSecretStoreTest : public ::testing::Test, protected StoreFixture {
 protected:
  FileSecretStoreTest() : StoreFixture("file") {}
  fs::path folder = home / "Quillmoor Launcher";
  fs::path file = folder / "saved-logins.json";
};

TEST_F(FileSecretStoreTest, KeepsTheCookiesPrivateAndReplacesTheFileWhole) {
  save("bob", "cookie-1");
  EXPECT_EQ(modeOf(folder), 0700u);
  EXPECT_EQ(modeOf(file), 0600u);
  struct stat before {}, after {};
  ASSERT_EQ(stat(file.c_str(), &before), 0);
  save("bob", "cookie-2");
  ASSERT_EQ(stat(file.c_str(), &after), 0);
  EXPECT_NE(after.st_ino, before.st_ino) << "the file is written in place";
  EXPECT_EQ(std::distance(fs::directory_iterator(folder), fs::directory_iterator()), 1) << "a temporary file stayed";
  EXPECT_EQ(authenticator.loadSavedPassword("bob"), "cookie-2");
}

TEST_F(FileSecretStoreTest, AnUnsafeFileOrFolderIsNeitherReadNorWritten) {
  const fs::path elsewhere = home / "elsewhere";
  struct Case {
    const char* name;
    std::function<void()> spoil;
    const char* reason;
  } cases[] = {
      {"file open to others", [&] { chmod(file.c_str(), 0644); }, "open to group or others"},
      {"folder open to the group", [&] { chmod(folder.c_str(), 0750); }, "open to group or others"},
      {"file is a link", [&] { fs::rename(file, elsewhere); fs::create_symlink(elsewhere, file); }, "symbolic link"},
      {"folder is a link", [&] { fs::rename(folder, elsewhere); fs::create_symlink(elsewhere, folder); },
       "not a plain folder"},
      {"file is not ours", [&] { EXPECT_EQ(chown(file.c_str(), 65534, 65534), 0); }, "belongs to another user"},
      {"file is not a saved-login file", [&] { writeFile(file, "not JSON"); chmod(file.c_str(), 0600); },
       "is not a saved-login file"},
  };
  for (auto& c : cases) {
    if (std::string(c.name) == "file is not ours" && geteuid() != 0) continue;  // only root can give a file away
    fs::remove_all(elsewhere);
    fs::remove_all(folder);  // or the link left by the case before
    save("bob", "cookie-1");
    ASSERT_EQ(authenticator.loadSavedPassword("bob"), "cookie-1") << c.name;
    c.spoil();

    LogCapture log;
    EXPECT_EQ(authenticator.loadSavedPassword("bob"), std::nullopt) << c.name;
    EXPECT_TRUE(authenticator.loadSavedLogins().empty()) << c.name;
    save("bob", "cookie-2");
    save("alice", "cookie-3");
    EXPECT_TRUE(log.contains(c.reason)) << c.name;
    for (const std::string& line : log.lines()) EXPECT_EQ(line.find("cookie-"), std::string::npos) << line;
    const fs::path written = fs::is_regular_file(elsewhere) ? elsewhere : file;
    EXPECT_EQ(readFile(written).find("cookie-2"), std::string::npos) << c.name;
  }
}

TEST_F(FileSecretStoreTest, TheFileIsUsedOnlyWhenNoSecretServiceAnswers) {
  ScopedEnvironment automatic("ZRV_SECRET_STORE", std::nullopt);
  for (auto bus : {std::optional<std::string>(), std::optional("unix:path=" + (home / "no-bus").string())}) {
    ScopedEnvironment noBus("DBUS_SESSION_BUS_ADDRESS", bus);
    EXPECT_EQ(ZRVAuthenticator::secretStoreName(), "file");
  }
  ScopedEnvironment forced("ZRV_SECRET_STORE", "secret-service");
  EXPECT_EQ(ZRVAuthenticator::secretStoreName(), "secret-service");
}

}  // namespace
