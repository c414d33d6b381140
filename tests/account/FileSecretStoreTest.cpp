#include <ZRVKit/ZRVAuthenticator.h>

#include "account/SecretStore.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <functional>

using namespace zrv::account;

namespace fs = std::filesystem;

namespace {

class FileSecretStoreTest : public ::testing::Test {
 protected:
  void save(const std::string& account, const std::string& cookie) {
    authenticator.setUsername(account);
    authenticator.setCookie(cookie);
    authenticator.saveLogin();
  }

  TemporaryDirectory home;
  ScopedEnvironment data{"XDG_DATA_HOME", home.path().string()};
  ScopedEnvironment choice{"ZRV_SECRET_STORE", "file"};
  fs::path folder = home / "Quillmoor Launcher";
  fs::path file = folder / "saved-logins.json";
  ZRVAuthenticator& authenticator = ZRVAuthenticator::defaultAuthenticator();
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
