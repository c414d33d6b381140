// One game file of 2 GiB, installed fresh and patched: the update's peak memory must not grow with the file.
// Making its data (4 GiB written, 2 GiB compressed by lbzip2) and the two updates take about four minutes
// on two cores and about 8 GiB of disk at the peak, so the row runs only when asked for (ZRV_BENCH_LARGE=1 or --large; ZRV_BENCH_LARGE_MIB sets the size).

#include "Bench.h"
#include "Child.h"
#include "LargeFile.h"

#include <cstdlib>
#include <filesystem>

namespace fs = std::filesystem;

std::vector<Row> largeFileRows(const Bench& bench) {
  const char* configured = std::getenv("ZRV_BENCH_LARGE_MIB");
  const std::string sizeMiB = configured ? configured : "2048";
  const std::string work = "one game file of " + sizeMiB + " MiB, fresh install and patch update: peak memory";
  if (!bench.large) return {{work, "—", "—", "—", "—", "peak ≤ 256 MiB", "not run (ZRV_BENCH_LARGE=1: about 4 minutes, 8 GiB of disk)", "—"}};

  const std::string old = bench.at("large-old"), now = bench.at("large-new"), tree = bench.at("large-out");
  const std::string install = bench.at("install-large");
  step("making one file of " + sizeMiB + " MiB, its next version and a patch");
  runChild({bench.self, kMakeLarge, sizeMiB, old, now, tree});
  step("compressing it (lbzip2)");
  fs::create_directories(tree + "/content/files");
  runChild({"lbzip2", "-n2", "-9", "-c", now}, tree + "/content/files/big.dat.bz2");
  runChild({bench.self, kLargeManifest, old, now, tree});
  const std::string expected = bench.at("large-expected");
  runShell("sha1sum < " + quoted(now) + " > " + quoted(expected));
  fs::remove(now);

  auto update = [&](bool patched) {
    fs::remove_all(install);
    fs::create_directories(install + "/Frameworks/Cg.framework");
    if (patched) fs::copy_file(old, install + "/big.dat");
    ChildRun run;
    whileServing(serveTree(bench, tree), [&](const Server& server) {
      run = runChild({bench.zrv, "--server", server.base(), "update", "--install", install});
    });
    runShell("sha1sum < " + quoted(install + "/big.dat") + " | cmp - " + quoted(expected));
    fs::remove_all(install);
    return run;
  };
  step("fresh install of the large file");
  ChildRun fresh = update(false);
  step("patch update of the large file");
  ChildRun patched = update(true);
  fs::remove(old);
  fs::remove_all(tree);
  const double freshMiB = static_cast<double>(fresh.peakKiB) / 1024, patchedMiB = static_cast<double>(patched.peakKiB) / 1024;
  return {{work + " (fresh " + fixed(fresh.seconds, 0) + " s, patched " + fixed(patched.seconds, 0) + " s)", "—",
           "1 run each", "—", "—", "peak ≤ 256 MiB", yesNo(freshMiB <= 256 && patchedMiB <= 256),
           "fresh " + fixed(freshMiB, 1) + ", patched " + fixed(patchedMiB, 1) + " / —"}};
}
