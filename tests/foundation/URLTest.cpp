#include <ZRVKit/ZRVHosts.h>
#include <ZRVKit/ZRVURL.h>

#include <gtest/gtest.h>

TEST(URL, ParsesAndRejects) {
  EXPECT_TRUE(ZRVURL::URLWithString("https://mirror.example.org/files/"));
  EXPECT_TRUE(ZRVURL::URLWithString("")->empty());
  for (const char* bad : {"not a url", "mirror.example.org/files", "https://", "http://exa mple.org/", "https://[::1/"}) {
    EXPECT_FALSE(ZRVURL::URLWithString(bad)) << bad;
  }
  auto url = ZRVURL::URLWithString("http://127.0.0.1:8123/api/login?format=json");
  ASSERT_TRUE(url);
  EXPECT_EQ(url->host(), "127.0.0.1");
  EXPECT_EQ(url->port(), 8123);
  EXPECT_EQ(url->path(), "/api/login");
  EXPECT_EQ(url->query(), "format=json");
}

TEST(URL, AppendsEncodedPathComponents) {
  auto mirror = ZRVURL::URLWithString("https://mirror.example.org/content/");
  ASSERT_TRUE(mirror);
  EXPECT_EQ(mirror->URLByAppendingPathComponent("game.bin.bz2")->absoluteString(),
            "https://mirror.example.org/content/game.bin.bz2");
  EXPECT_EQ(mirror->URLByAppendingPathComponent("Data/Big File%.pak")->absoluteString(),
            "https://mirror.example.org/content/Data/Big%20File%25.pak");
  auto bare = ZRVURL::URLWithString("https://mirror.example.org/content");
  EXPECT_EQ(bare->URLByAppendingPathComponent("x")->absoluteString(), "https://mirror.example.org/content/x");
  EXPECT_FALSE(ZRVURL().URLByAppendingPathComponent("x"));

  EXPECT_EQ(ZRVURL::removingPercentEncoding("Big%20File%25.pak"), "Big File%.pak");
  EXPECT_FALSE(ZRVURL::removingPercentEncoding("broken%2"));
  EXPECT_FALSE(ZRVURL::removingPercentEncoding("bad%zz"));
  EXPECT_FALSE(ZRVURL::removingPercentEncoding("nul%00"));
}

TEST(Hosts, RedirectSendsEveryHostToOneBase) {
  ZRVHosts::setRedirect(std::nullopt);
  auto real = ZRVHosts::URL(ZRVHost::webAPI, "/api/status");
  ASSERT_TRUE(real);
  EXPECT_EQ(real->scheme(), "https");
  EXPECT_NE(ZRVHosts::baseAddress(ZRVHost::content), ZRVHosts::baseAddress(ZRVHost::webAPI));

  ZRVHosts::setRedirect("http://127.0.0.1:9/");
  for (ZRVHost host : {ZRVHost::content, ZRVHost::webAPI, ZRVHost::webAPIMirrors, ZRVHost::developmentMirrors}) {
    EXPECT_EQ(ZRVHosts::URL(host, "/content/")->absoluteString(), "http://127.0.0.1:9/content/");
  }
  ZRVHosts::setRedirect(std::nullopt);
}
