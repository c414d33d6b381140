// The same saved-login cases against both secret stores. The Secret Service cases run only against the
// throwaway keyring that scripts/run-tests.sh starts (ZRV_TEST_PRIVATE_KEYRING), never a user's own.

#include <ZRVKit/ZRVAuthenticator.h>

#include "account/SecretStore.h"
#include "support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <cstdlib>

using namespace zrv::account;

// libsecret 0.20 leaks a few bytes each time it makes the proxy of a found item; not ours to fix. GLib has
// no frame pointers, so the leak's stack names libsecret only with the slow unwinder.
extern "C" const char* __lsan_default_suppressions() { return "leak:secret_item_new_for_dbus_path\n"; }
extern "C" const char* __asan_default_options() { return "fast_unwind_on_malloc=0"; }

namespace {

constexpr const char* kOtherService = "Another Game";

// Parameter: the store's name, as ZRV_SECRET_STORE chooses it.
class SavedLogins : public ::testing::TestWithParam<std::string> {
 protected:
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

  void save(const std::string& account, const std::string& cookie) {
    authenticator.setUsername(account);
    authenticator.setCookie(cookie);
    authenticator.saveLogin();
  }

  std::optional<std::string> otherServiceSecret(const std::string& account) {
    SecretMatch match;
    const SecretQuery query{.service = kOtherService, .account = account, .returnData = true};
    if (store().copyMatching(query, &match) != SecretStatus::success) return std::nullopt;
    return match.data;
  }

  TemporaryDirectory home;
  ScopedEnvironment data{"XDG_DATA_HOME", home.path().string()};
  ScopedEnvironment choice{"ZRV_SECRET_STORE", GetParam()};
  ZRVAuthenticator& authenticator = ZRVAuthenticator::defaultAuthenticator();
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

}  // namespace
