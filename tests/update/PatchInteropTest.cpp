// Patches travel both ways between this library and Debian's bsdiff/bspatch, over files of several shapes.

#include "support/ShellCommand.h"
#include "support/TemporaryDirectory.h"
#include "tests/update/PatchBuilder.h"

#include <patchmaker/PatchMaker.h>

#include <ZRVKit/bsdiff.h>

#include <gtest/gtest.h>

namespace {

/// Records of a little game-like table: repeated structure with a changing counter.
ZRVData structuredBytes(std::size_t records, unsigned salt) {
  ZRVData bytes;
  for (std::size_t i = 0; i < records; ++i) {
    std::string record = "item:" + std::to_string(i * 7 + salt % 3) + ";hp=" + std::to_string(100 + i % 17) + "\n";
    bytes.insert(bytes.end(), record.begin(), record.end());
  }
  return bytes;
}

ZRVData concat(std::initializer_list<ZRVData> parts) {
  ZRVData all;
  for (const ZRVData& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

ZRVData slice(const ZRVData& data, std::size_t from, std::size_t to) { return ZRVData(data.begin() + from, data.begin() + to); }

std::string text(const ZRVData& bytes) { return std::string(bytes.begin(), bytes.end()); }

int run(const std::string& command) { return runShellCommand(command + " 2>/dev/null").status; }

struct Shape {
  const char* name;
  ZRVData old, now;
};

std::vector<Shape> shapes() {
  const ZRVData base = randomBytes(200000, 1);
  const ZRVData table = structuredBytes(20000, 0);
  return {
      {"empty old", {}, randomBytes(5000, 2)},
      {"empty new", randomBytes(5000, 3), {}},
      {"both empty", {}, {}},
      {"identical", base, base},
      {"unrelated random data", randomBytes(70000, 4), randomBytes(90000, 5)},
      {"inserted block", base, concat({slice(base, 0, 80000), randomBytes(3000, 6), slice(base, 80000, base.size())})},
      {"deleted block", base, concat({slice(base, 0, 50000), slice(base, 120000, base.size())})},
      {"edited table", table, concat({slice(structuredBytes(20000, 1), 0, 150000), slice(table, 160000, table.size())})},
  };
}

TEST(PatchInterop, patchesTravelBothWaysBetweenDebiansToolsAndTheLibrary) {
  TemporaryDirectory folder;
  const auto file = [&](const char* name) { return (folder / name).string(); };
  const auto bspatch = [&](const char* patch) { return run("bspatch " + file("old") + " " + file("by-bspatch") + " " + file(patch)); };
  for (const Shape& shape : shapes()) {
    writeFile(file("old"), text(shape.old));
    const ZRVData compressed = makePatch(shape.old, shape.now, false);
    writeFile(file("ours"), text(compressed));
    ASSERT_EQ(bspatch("ours"), 0) << shape.name;
    EXPECT_EQ(readFile(file("by-bspatch")), text(shape.now)) << shape.name;
    EXPECT_EQ(bsdiff::patch(shape.old, compressed), shape.now) << shape.name;
    EXPECT_EQ(bsdiff::patch(shape.old, makePatch(shape.old, shape.now, true)), shape.now) << shape.name;
    // Debian's bsdiff cannot map empty files, so it makes no patch for them.
    if (shape.old.empty() || shape.now.empty()) continue;
    writeFile(file("new"), text(shape.now));
    ASSERT_EQ(run("bsdiff " + file("old") + " " + file("new") + " " + file("theirs")), 0) << "is bsdiff installed?";
    ASSERT_EQ(bspatch("theirs"), 0) << shape.name;
    ASSERT_EQ(run(std::string(ZRV_TOOL_PATH) + " patch " + file("old") + " " + file("theirs") + " " + file("by-zrv")), 0)
        << shape.name;
    EXPECT_EQ(readFile(file("by-zrv")), readFile(file("by-bspatch"))) << shape.name;
    EXPECT_EQ(readFile(file("by-zrv")), text(shape.now)) << shape.name;
  }
}

TEST(PatchInterop, zrvPatchReportsACorruptPatchAndWritesNothing) {
  TemporaryDirectory folder;
  ZRVData patch = makePatch({1, 2, 3}, {1, 2, 3, 4}, false);
  patch[31] = 0x7f;  // a new size far beyond what the streams hold
  writeFile(folder / "old", text({1, 2, 3}));
  writeFile(folder / "patch", text(patch));
  ShellOutcome outcome = runShellCommand(std::string(ZRV_TOOL_PATH) + " patch " + (folder / "old").string() + " " +
                                         (folder / "patch").string() + " " + (folder / "new").string() + " 2>&1");
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.output, "zrv patch: bsdiff: Corrupt patch\n");
  EXPECT_FALSE(std::filesystem::exists(folder / "new"));
}

}  // namespace
