# The two commands of the README, and the builds behind them. Each target bootstraps, configures and builds.
.PHONY: demo test test-asan fuzz bench build bootstrap clean

bootstrap:
	./scripts/bootstrap.sh

build: bootstrap
	cmake --preset release >/dev/null
	cmake --build --preset release -j $$(nproc)

# The main job: the launcher's whole flow against an embedded server, in a temporary home.
demo: build
	./build/release/tools/zrv/zrv demo

# The test suite (warnings as errors), then the example consumers built against an installed copy.
test: build
	./scripts/run-tests.sh release
	./scripts/check-install.sh

test-asan: bootstrap
	cmake --preset asan >/dev/null
	cmake --build --preset asan -j $$(nproc)
	./scripts/run-tests.sh asan

fuzz: bootstrap
	./scripts/run-fuzz.sh

# Every speed and memory goal in one run, as paired ratios against the peer tools (ZRV_BENCH_QUICK=1: fewer pairs).
bench: bootstrap
	./scripts/run-bench.sh
	./scripts/run-bench-hostile.sh

clean:
	rm -rf build
