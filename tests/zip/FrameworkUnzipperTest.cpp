#include "ZipTestSupport.h"

#include <ZRVKit/ZRVFrameworkUnzipper.h>
#include <ZRVKit/ZRVMainQueue.h>

#include <support/TemporaryDirectory.h>

#include <gtest/gtest.h>

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

std::vector<std::string> unzipAndCollect(const fs::path& archive) {
  std::vector<std::string> notices;
  bool done = false;
  auto note = [&](const char* what, bool last) {
    return [&, what, last](const fs::path& path) {
      EXPECT_TRUE(ZRVMainQueue::isMainThread());
      notices.push_back(std::string(what) + " " + path.filename().string());
      if (last) done = true;
    };
  };
  ZRVFrameworkUnzipper::process(archive, {note("begin", false), note("end", true), note("fail", true)});
  EXPECT_TRUE(ZRVOperationQueue::mainQueue().runUntil([&] { return done; }, 10s));
  return notices;
}

}  // namespace

TEST(FrameworkUnzipper, UnpacksBesideTheArchiveOrFailsAndReportsOnTheMainQueue) {
  TemporaryDirectory temporary;
  const fs::path archive = temporary / "Frameworks" / "Cg.framework.zip";
  fs::create_directories(archive.parent_path());
  craftArchive(archive, {{"Cg.framework/Versions/A/Cg", "library"},
                         {"Cg.framework/Versions/Current", "A", 0, 0x4000},
                         {"__MACOSX/Cg.framework/._Cg", "resource fork"}});
  EXPECT_EQ(unzipAndCollect(archive), (std::vector<std::string>{"begin Cg.framework.zip", "end Cg.framework.zip"}));
  EXPECT_EQ(readFile(temporary / "Frameworks" / "Cg.framework" / "Versions" / "Current" / "Cg"), "library");
  EXPECT_FALSE(fs::exists(temporary / "Frameworks" / "__MACOSX"));

  writeFile(temporary / "broken.zip", "not an archive");
  EXPECT_EQ(unzipAndCollect(temporary / "broken.zip"),
            (std::vector<std::string>{"begin broken.zip", "fail broken.zip"}));
}
