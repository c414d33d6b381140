#include <ZRVKit/ZRVBundle.h>
#include <ZRVKit/ZRVError.h>

#include "support/TemporaryDirectory.h"

#include <gtest/gtest.h>

TEST(Bundle, LibraryTextsAreBuiltInAndTranslationsOverrideThem) {
  ZRVBundle& library = ZRVBundle::libraryBundle();
  library.setLanguage("en");
  EXPECT_FALSE(library.localizedString("MANAGED_FILE_UPDATED").empty());
  EXPECT_EQ(library.localizedString("NO_SUCH_KEY"), "");
  EXPECT_EQ(library.localizedString("NO_SUCH_KEY", "fallback"), "fallback");

  TemporaryDirectory resources;
  writeFile(resources / "Localizable.de.json", R"({"MANAGED_FILE_UPDATED": "%@ aktualisiert."})");
  ZRVBundle bundle("com.example.test", resources.path());
  bundle.setBuiltInTable("Localizable", "en", R"({"MANAGED_FILE_UPDATED": "Updated %@.", "ONLY_EN": "x"})");
  bundle.setLanguage("de");
  EXPECT_EQ(bundle.localizedString("MANAGED_FILE_UPDATED"), "%@ aktualisiert.");
  EXPECT_EQ(bundle.localizedString("ONLY_EN"), "x");  // falls back to English
  library.setLanguage(std::nullopt);
}

TEST(Bundle, MainBundleResourcesAndErrorDomains) {
  TemporaryDirectory resources;
  writeFile(resources / "Frameworks.zip", "PK");
  ZRVBundle& main = ZRVBundle::mainBundle();
  main.setResourceDirectory(resources.path());
  EXPECT_EQ(main.URLForResource("Frameworks", "zip"), resources / "Frameworks.zip");
  EXPECT_FALSE(main.URLForResource("Missing", "zip"));
  main.setResourceDirectory(std::nullopt);

  main.setBundleIdentifier("com.example.launcher");
  ZRVError error = ZRVError::library("ManagedFile", 4, "text");
  EXPECT_EQ(error.domain(), "com.example.launcher.ManagedFile");
  EXPECT_EQ(error.userInfo(), ZRVJSON({{"error", "text"}}));
  main.setBundleIdentifier(std::string(ZRVBundle::kDefaultMainBundleIdentifier));

  ZRVError missing = ZRVError::file(ENOENT, "/nowhere");
  EXPECT_TRUE(missing.hasUnderlyingPOSIX(2));
  EXPECT_FALSE(ZRVError::posix(2).hasUnderlyingPOSIX(2));
}
