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

struct FileBackend {
  static constexpr const char* name = "file";
  static SecretStore& store() { return fileSecretStore(); }
  static std::string unavailable() { return {}; }
};

struct SecretServiceBackend {
  static constexpr const char* name = "secret-service";
  static SecretStore& store() { return secretServiceStore(); }
  static std::string unavailable() {
    if (!std::getenv("ZRV_TEST_PRIVATE_KEYRING")) return "needs the throwaway keyring of scripts/run-tests.sh";
    if (!secretServiceAnswers()) return "no Secret Service answers on the session bus";
    return {};
  }
};

template <class Backend>
class SavedLogins : public ::testing::Test {
 protected:
  void SetUp() override {
    if (std::string why = Backend::unavailable(); !why.empty()) GTEST_SKIP() << why;
    clear();
  }
  void TearDown() override {
    if (!IsSkipped()) clear();
  }

  void clear() {
    for (const std::string& account : authenticator.loadSavedLogins()) authenticator.removeSavedLogin(account);
    SecretQuery other;
    other.service = kOtherService;
    Backend::store().remove(other);
  }

  void save(const std::string& account, const std::string& cookie) {
    authenticator.setUsername(account);
    authenticator.setCookie(cookie);
    authenticator.saveLogin();
  }

  std::optional<std::string> otherServiceSecret(const std::string& account) {
    SecretQuery query;
    query.service = kOtherService;
    query.account = account;
    query.returnData = true;
    SecretMatch match;
    if (Backend::store().copyMatching(query, &match) != SecretStatus::success) return std::nullopt;
    return match.data;
  }

  TemporaryDirectory home;
  ScopedEnvironment data{"XDG_DATA_HOME", home.path().string()};
  ScopedEnvironment choice{"ZRV_SECRET_STORE", Backend::name};
  ZRVAuthenticator& authenticator = ZRVAuthenticator::defaultAuthenticator();
};

struct BackendNames {
  template <class Backend>
  static std::string GetName(int) {
    return Backend::name == std::string("file") ? "File" : "SecretService";
  }
};
using Backends = ::testing::Types<FileBackend, SecretServiceBackend>;
TYPED_TEST_SUITE(SavedLogins, Backends, BackendNames);

TYPED_TEST(SavedLogins, AccountsAreListedByNameSavedOnceEachAndRemovedOneByOne) {
  EXPECT_EQ(ZRVAuthenticator::secretStoreName(), TypeParam::name);
  EXPECT_TRUE(this->authenticator.loadSavedLogins().empty());
  EXPECT_EQ(this->authenticator.loadSavedPassword("bob"), std::nullopt);
  for (const char* account : {"carol", "alice", "Zoë", "bob"}) this->save(account, std::string("cookie of ") + account);
  this->save("bob", "second cookie");  // the same item, with the newer cookie
  EXPECT_EQ(this->authenticator.loadSavedLogins(), (std::vector<std::string>{"Zoë", "alice", "bob", "carol"}));
  EXPECT_EQ(this->authenticator.loadSavedPassword("Zoë"), "cookie of Zoë");
  EXPECT_EQ(this->authenticator.loadSavedPassword("bob"), "second cookie");

  this->authenticator.removeSavedLogin("alice");
  this->authenticator.removeSavedLogin("nobody");
  EXPECT_EQ(this->authenticator.loadSavedLogins(), (std::vector<std::string>{"Zoë", "bob", "carol"}));
  EXPECT_EQ(this->authenticator.loadSavedPassword("alice"), std::nullopt);
  EXPECT_EQ(this->authenticator.loadSavedPassword("carol"), "cookie of carol");
}

TYPED_TEST(SavedLogins, ItemsOfAnotherServiceAreNeverSeen) {
  ASSERT_EQ(TypeParam::store().add(kOtherService, "bob", "their cookie"), SecretStatus::success);
  EXPECT_TRUE(this->authenticator.loadSavedLogins().empty());
  EXPECT_EQ(this->authenticator.loadSavedPassword("bob"), std::nullopt);
  this->authenticator.removeSavedLogin("bob");
  this->save("bob", "our cookie");
  EXPECT_EQ(this->authenticator.loadSavedPassword("bob"), "our cookie");
  EXPECT_EQ(this->otherServiceSecret("bob"), "their cookie");
}

TYPED_TEST(SavedLogins, AddRefusesAnExistingItemAndUpdateAMissingOne) {
  SecretStore& store = TypeParam::store();
  EXPECT_EQ(store.update("Quillmoor", "bob", "x"), SecretStatus::itemNotFound);
  EXPECT_EQ(store.add("Quillmoor", "bob", "first"), SecretStatus::success);
  EXPECT_EQ(store.add("Quillmoor", "bob", "second"), SecretStatus::duplicateItem);
  EXPECT_EQ(this->authenticator.loadSavedPassword("bob"), "first");
  EXPECT_EQ(store.update("Quillmoor", "bob", "third"), SecretStatus::success);
  EXPECT_EQ(this->authenticator.loadSavedPassword("bob"), "third");
}

}  // namespace
