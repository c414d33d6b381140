// One game file of 2 GiB, installed fresh and patched. Making its data (2 GiB written, compressed with bzip2,
// and a patch made) takes far longer than the rest of the benchmark and about 6 GiB of disk, so the row runs
// only when asked for (ZRV_BENCH_LARGE=1 or --large).

#include "Bench.h"

std::vector<Row> largeFileRows(const Bench& bench) {
  if (!bench.large) {
    return {{"one game file of 2 GiB, fresh and patched: peak memory", "—", "0", "—", "—", "peak ≤ 256 MiB",
             "not run", "— (ZRV_BENCH_LARGE=1)"}};
  }
  return {{"one game file of 2 GiB, fresh and patched: peak memory", "—", "0", "—", "—", "peak ≤ 256 MiB",
           "not measured: this harness does not make the 2 GiB data yet", "—"}};
}
