#include <ZRVKit/ZRVFormat.h>

#include <gtest/gtest.h>

#include <optional>

TEST(Format, RendersTheLibraryFormats) {
  std::optional<std::string> absent;
  EXPECT_EQ(ZRVFormat("-[%@ %@]+%d: error %@.", "ZRVPatcher", "log:", 42, "gone"),
            "-[ZRVPatcher log:]+42: error gone.");
  EXPECT_EQ(ZRVFormat("%@ is an invalid location.", absent), "(null) is an invalid location.");
  EXPECT_EQ(ZRVFormat("%02x%02x%02x", 0, 10, 255), "000aff");
  EXPECT_EQ(ZRVFormat("%%%02X", 0x2F), "%2F");
  EXPECT_EQ(ZRVFormat("%%%02X", 0x20AC), "%20AC");  // a unit above 0xFF keeps all its digits
  EXPECT_EQ(ZRVFormat("%lu bytes", std::size_t{1234}), "1234 bytes");
  EXPECT_EQ(ZRVFormat("%f", 1.5), "1.500000");
  EXPECT_EQ(ZRVFormat("%C", 0xE9), "\xC3\xA9");
  EXPECT_EQ(ZRVFormat("100%%"), "100%");
  EXPECT_EQ(ZRVFormat("%@ and %@", "one"), "one and (null)");  // a missing argument prints as absent
}
