// Block-parallel bzip2 decoding into a file must give exactly what the sequential decoder gives, for good and for
// damaged streams alike.

#include "support/TemporaryDirectory.h"
#include "tests/update/PatchBuilder.h"
#include "update/bzip2/BZip2BlockPipeline.h"
#include "update/bzip2/BZip2Blocks.h"
#include "update/bzip2/BZip2TablePool.h"

#include <ZRVKit/ZRVExtensions.h>
#include <ZRVKit/ZRVOperationQueue.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <limits>
#include <thread>

using namespace zrv::bzip2;  // the codec's internals under test

namespace {

/// Sets the size from which the parallel decoder is used, for one scope.
struct ParallelFrom {
  std::size_t saved;
  explicit ParallelFrom(std::size_t length) : saved(BZip2BlockPipeline::minimumInputLength.exchange(length)) {}
  ~ParallelFrom() { BZip2BlockPipeline::minimumInputLength = saved; }
};
constexpr std::size_t kAlways = 0;
constexpr std::size_t kNever = std::numeric_limits<std::size_t>::max();

std::vector<std::uint64_t> blockStarts(const ZRVData& stream) {
  std::vector<std::uint64_t> starts;
  for (Block block : blocksOf(stream)) starts.push_back(block.start);
  return starts;
}

struct Case {
  const char* name;
  std::function<ZRVData(ZRVData)> damage;
};

const ZRVData& cleanStream() {
  static const ZRVData stream = bzip2(gameLikeBytes(700000, 1), 1);
  return stream;
}

std::vector<Case> cases() {
  auto middleOfBlock = [](const ZRVData& stream, std::size_t block) {
    auto starts = blockStarts(stream);
    return static_cast<std::size_t>((starts.at(block) + starts.at(block + 1)) / 16);
  };
  return {
      {"clean", [](ZRVData s) { return s; }},
      {"block magic planted in block 2",
       [=](ZRVData s) {
         const std::uint8_t magic[] = {0x31, 0x41, 0x59, 0x26, 0x53, 0x59};
         std::copy(std::begin(magic), std::end(magic), s.begin() + static_cast<long>(middleOfBlock(s, 2)));
         return s;
       }},
      {"end magic planted in block 1",
       [=](ZRVData s) {
         const std::uint8_t magic[] = {0x17, 0x72, 0x45, 0x38, 0x50, 0x90};
         std::copy(std::begin(magic), std::end(magic), s.begin() + static_cast<long>(middleOfBlock(s, 1)));
         return s;
       }},
      {"damaged middle block", [=](ZRVData s) { s[middleOfBlock(s, 2)] ^= 0x10; return s; }},
      {"damaged block CRC", [](ZRVData s) { s[blockStarts(s)[1] / 8 + 8] ^= 0x01; return s; }},
      {"damaged combined CRC", [](ZRVData s) { s[s.size() - 2] ^= 0x04; return s; }},
      {"last block cut short", [](ZRVData s) { s.resize(s.size() - 2000); return s; }},
      {"cut inside the combined CRC", [](ZRVData s) { s.resize(s.size() - 3); return s; }},
      {"a second stream behind",
       [](ZRVData s) {
         ZRVData second = bzip2(gameLikeBytes(250000, 2), 1);
         s.insert(s.end(), second.begin(), second.end());
         return s;
       }},
      {"garbage behind", [](ZRVData s) { s.insert(s.end(), 5000, 0x31); return s; }},
      {"empty stream", [](ZRVData) { return bzip2({}); }},
      {"no bytes at all", [](ZRVData) { return ZRVData{}; }},
      {"not bzip2", [](ZRVData) { return gameLikeBytes(70000, 3); }},
  };
}

// Damaged input still counts as success (what was decoded before the damage stays), and the file is replaced.
std::string decodeToFile(const ZRVData& input, const std::filesystem::path& file) {
  writeFile(file, "old contents that are longer than nothing");
  std::optional<ZRVError> error = ZRVError("stale", 1);
  EXPECT_TRUE(ZRVExtensions::decompressBZIP2CompressedDataToURL(input, file, &error));
  EXPECT_FALSE(error);
  return readFile(file);
}

// Every case's input and what the sequential decoder writes for it.
struct Reference {
  std::vector<ZRVData> inputs;
  std::vector<std::string> expected;
};
const Reference& sequentialDecodes() {
  static const Reference reference = [] {
    TemporaryDirectory folder;
    ParallelFrom never(kNever);
    Reference made;
    for (const Case& c : cases()) {
      made.inputs.push_back(c.damage(cleanStream()));
      made.expected.push_back(decodeToFile(made.inputs.back(), folder / "sequential"));
    }
    return made;
  }();
  return reference;
}

TEST(BZip2Blocks, parallelDecodingGivesWhatSequentialDecodingGives) {
  ASSERT_GE(blockStarts(cleanStream()).size(), 4u);
  const ZRVData original = gameLikeBytes(700000, 1);
  const Reference& sequential = sequentialDecodes();
  EXPECT_TRUE(sequential.expected.front() == std::string(original.begin(), original.end()));  // "clean"
  EXPECT_TRUE(sequential.expected.back().empty());  // "not bzip2"
  TemporaryDirectory folder;
  ParallelFrom always(kAlways);
  for (std::size_t i = 0; i < sequential.inputs.size(); ++i) {
    EXPECT_TRUE(decodeToFile(sequential.inputs[i], folder / "parallel") == sequential.expected[i]) << cases()[i].name;
  }
}

TEST(BZip2Blocks, manyDecodesAtOnceFinishWithTablesFromAboutOneSetPerCore) {
  // Damaged streams as well, so that libbz2 decodes some of the blocks, with its tables from the pool too.
  const Reference& sequential = sequentialDecodes();
  TemporaryDirectory folder;
  ParallelFrom always(kAlways);
  std::atomic<std::size_t> matched{0};
  // Half from threads of their own, more than there are sets; half from the work queue, whose threads the
  // decoders also use.
  std::vector<std::thread> threads;
  std::vector<std::shared_ptr<ZRVOperation>> operations;
  const std::size_t kDecodes = 4 * BZip2TablePool::capacity() + 2;
  for (std::size_t i = 0; i < kDecodes; ++i) {
    auto decode = [&, i] {
      const std::size_t which = i % sequential.inputs.size();
      const auto file = folder / ("parallel" + std::to_string(i));
      ZRVExtensions::decompressBZIP2CompressedDataToURL(sequential.inputs[which], file);
      if (readFile(file) == sequential.expected[which]) ++matched;
    };
    if (i % 2) threads.emplace_back(decode);
    else operations.push_back(ZRVOperationQueue::workQueue().addOperationWithBlock(decode));
  }
  for (auto& thread : threads) thread.join();
  for (const auto& operation : operations) operation->waitUntilFinished();
  EXPECT_EQ(matched.load(), kDecodes);
  EXPECT_LE(BZip2TablePool::setsMade(), BZip2TablePool::capacity());
}

TEST(BZip2Blocks, anUnopenableDestinationIsAnErrorWithErrno) {
  TemporaryDirectory folder;
  std::optional<ZRVError> error;
  EXPECT_FALSE(ZRVExtensions::decompressBZIP2CompressedDataToURL(bzip2({1, 2}), folder / "missing" / "file", &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), "BZip2");
  EXPECT_EQ(error->code(), ENOENT);
  EXPECT_FALSE(ZRVExtensions::decompressBZIP2CompressedDataToURL(bzip2({1, 2}), folder / "missing" / "file"));
}

}  // namespace
