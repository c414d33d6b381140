// Applying a binary patch to a 48 MiB pack beside Debian's bspatch, and decoding its bzip2 form to a file
// beside bzip2 -d and lbzip2 -n2.

#include "Bench.h"
#include "Child.h"
#include "Ratios.h"
#include "Workloads.h"

#include <filesystem>

std::vector<Row> patchRows(const Bench& bench) {
  const std::string old = bench.at("pack-old"), now = bench.at("pack-new"), patch = bench.at("pack.patch");
  step("making a 48 MiB pack and its next version");
  runChild({bench.self, kMakePatchPair, old, now});
  step("bsdiff (once)");
  runChild({"bsdiff", old, now, patch});
  runChild({"bzip2", "-k", "-9", "-f", now});
  const std::string compressed = now + ".bz2";
  const double patchMiB = static_cast<double>(std::filesystem::file_size(patch)) / (1 << 20);
  const double bz2MB = static_cast<double>(std::filesystem::file_size(compressed)) / 1e6;

  step("patch: zrv patch / bspatch");
  const std::string byZrv = bench.at("patched-zrv"), byPeer = bench.at("patched-bspatch");
  auto patchRounds = interleaved(bench.pairs, {{[&] { std::filesystem::remove(byZrv); },
                                                [&] { return runChild({bench.zrv, "patch", old, patch, byZrv}); }},
                                               {[&] { std::filesystem::remove(byPeer); },
                                                [&] { return runChild({"bspatch", old, byPeer, patch}); }}});
  runChild({"cmp", byZrv, now});
  runChild({"cmp", byPeer, now});

  step("bzip2 to a file: zrv / bzip2 -d / lbzip2 -n2");
  const std::string decoded = bench.at("decoded");
  auto decodeRounds = interleaved(
      bench.pairs, {{{}, [&] { return runChild({bench.self, kDecode, compressed, decoded + "-zrv"}); }},
                    {{}, [&] { return runChild({"bzip2", "-d", "-c", compressed}, decoded + "-bzip2"); }},
                    {{}, [&] { return runChild({"lbzip2", "-n2", "-d", "-c", compressed}, decoded + "-lbzip2"); }}});
  for (const char* by : {"-zrv", "-bzip2", "-lbzip2"}) runChild({"cmp", decoded + by, now});

  const std::string pairs = std::to_string(bench.pairs);
  std::vector<Row> rows;
  {
    auto ratio = ratios(patchRounds, 0, 1);
    double zrvPeak = peakMiB(patchRounds, 0), peerPeak = peakMiB(patchRounds, 1);
    rows.push_back({"apply a " + fixed(patchMiB) + " MiB patch to a 48 MiB file", "`bspatch`", pairs, fixed(minimum(ratio)),
                    fixed(median(ratio)), "median ≤ 0.50, peak ≤ bspatch's",
                    yesNo(median(ratio) <= 0.5 && zrvPeak <= peerPeak), peaks(zrvPeak, peerPeak)});
  }
  const struct {
    const char* peer;
    std::size_t index;
    double goal;
    const char* goalText;
  } peers[] = {{"`bzip2 -d`", 1, 0.4, "median ≤ 0.40 (2.5× faster)"}, {"`lbzip2 -n2 -d`", 2, 1.0, "median ≤ 1.00"}};
  for (const auto& peer : peers) {
    auto ratio = ratios(decodeRounds, 0, peer.index);
    rows.push_back({"decode " + fixed(bz2MB, 1) + " MB of bzip2 to a file", peer.peer, pairs, fixed(minimum(ratio)),
                    fixed(median(ratio)), peer.goalText, yesNo(median(ratio) <= peer.goal),
                    peaks(peakMiB(decodeRounds, 0), peakMiB(decodeRounds, peer.index))});
  }
  for (const auto& file : {old, now, patch, compressed, byZrv, byPeer, decoded + "-zrv", decoded + "-bzip2", decoded + "-lbzip2"}) {
    std::filesystem::remove(file);
  }
  return rows;
}
