// The publisher works on several files at once: its output must not depend on how many, and the files being
// worked on must stay within their memory budget.

#include "publish/InOrderWork.h"
#include "publish/Publisher.h"
#include "support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <map>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace fs = std::filesystem;

namespace {

// Every file of a published tree, by its relative name.
std::map<std::string, std::string> treeOf(const fs::path& folder) {
  std::map<std::string, std::string> tree;
  for (const auto& entry : fs::recursive_directory_iterator(folder)) {
    std::string name = fs::relative(entry.path(), folder).generic_string();
    tree[name] = entry.is_regular_file() ? readFile(entry.path()) : "(folder)";
  }
  return tree;
}

std::string noise(std::uint64_t seed, std::size_t size) {
  std::mt19937_64 random(seed);
  std::string bytes(size, '\0');
  for (auto& byte : bytes) byte = static_cast<char>(random() % 7 == 0 ? random() : 'q');
  return bytes;
}

struct BuildFile {
  std::string name, newContents;
  std::vector<std::string> olderContents;  // one per older build; "" leaves the file out of that build
};

}  // namespace

TEST(Publisher, OutputIsTheSameForOneAndForSeveralWorkers) {
  const std::string big = noise(1, 300'000);
  std::string changed = big;
  changed[1000] ^= 1;
  changed.insert(5000, "inserted bytes");
  const struct {
    const char* what;
    std::vector<BuildFile> files;
  } cases[] = {
      {"whole files only", {{"a.dat", noise(2, 5000), {}}, {"b/c.dat", "", {}}, {"b/d e.dat", "text", {}}}},
      {"one older build",
       {{"big.dat", changed, {big}}, {"same.dat", "same", {"same"}}, {"new.dat", "new", {""}}, {"x/y.dat", big, {changed}}}},
      {"two older builds, one a copy of the other",
       {{"big.dat", changed, {big, big}}, {"small.dat", noise(3, 4000), {noise(4, 4000), noise(5, 3000)}}}},
      {"many small files",
       [] {
         std::vector<BuildFile> files;
         for (int i = 0; i < 40; ++i) {
           files.push_back({"f" + std::to_string(i) + ".dat", noise(10 + i, 2000 + 97 * i), {noise(100 + i, 2100)}});
         }
         return files;
       }()},
  };
  for (const auto& publishCase : cases) {
    SCOPED_TRACE(publishCase.what);
    TemporaryDirectory folder;
    std::vector<fs::path> olderBuilds;
    for (const auto& file : publishCase.files) {
      writeFile(folder / "new" / file.name, file.newContents);
      for (std::size_t i = 0; i < file.olderContents.size(); ++i) {
        if (i == olderBuilds.size()) olderBuilds.push_back(folder / ("old" + std::to_string(i)));
        fs::create_directories(olderBuilds[i]);
        if (!file.olderContents[i].empty()) writeFile(olderBuilds[i] / file.name, file.olderContents[i]);
      }
    }
    // (name, workers, bytes in flight): the last squeezes every patch to run alone.
    const std::vector<std::tuple<std::string, unsigned, std::uintmax_t>> runs = {
        {"one", 1, std::uintmax_t{1} << 30}, {"four", 4, std::uintmax_t{1} << 30}, {"tight", 3, 1}};
    std::map<std::string, std::map<std::string, std::string>> trees;
    for (const auto& [name, workers, bytes] : runs) {
      PublishOptions options;
      options.newBuild = folder / "new";
      options.output = folder / ("out-" + name);
      options.olderBuilds = olderBuilds;
      options.workers = workers;
      options.bytesInFlight = bytes;
      std::vector<std::string> told;
      options.progress = [&, caller = std::this_thread::get_id()](const std::string& file, std::size_t) {
        EXPECT_EQ(std::this_thread::get_id(), caller);
        told.push_back(file);
      };
      publishBuild(options);
      EXPECT_TRUE(std::is_sorted(told.begin(), told.end())) << name;
      EXPECT_EQ(told.size(), publishCase.files.size()) << name;
      trees[name] = treeOf(options.output);
    }
    EXPECT_EQ(trees["one"], trees["four"]);
    EXPECT_EQ(trees["one"], trees["tight"]);
  }
}

TEST(InOrderWork, AFailingItemStopsTheRestAndIsRethrownAfterTheItemsBeforeIt) {
  for (unsigned workers : {1u, 3u}) {
    std::atomic<std::size_t> started{0};
    std::vector<std::size_t> finished;
    InOrderWork plan;
    plan.workers = workers;
    plan.budget = 100;
    plan.claim = [](std::size_t) { return std::uintmax_t{1}; };
    plan.work = [&](std::size_t i) {
      ++started;
      if (i == 3) throw std::runtime_error("item 3");
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    };
    plan.finished = [&](std::size_t i) { finished.push_back(i); };
    try {
      runInOrder(200, plan);
      ADD_FAILURE() << "the failure was swallowed";
    } catch (const std::runtime_error& failure) {
      EXPECT_STREQ(failure.what(), "item 3");
    }
    EXPECT_EQ(finished, (std::vector<std::size_t>{0, 1, 2})) << workers;
    // One worker starts nothing after the failing item; several stop long before the end.
    EXPECT_LE(started.load(), workers == 1 ? 4u : 100u) << workers;
  }
}
