# The two commands of the README, and the builds behind them. Each target bootstraps, configures and builds.
.PHONY: demo test test-asan build bootstrap clean

bootstrap:
	./scripts/bootstrap.sh

build: bootstrap
	cmake --preset release >/dev/null
	cmake --build --preset release -j $$(nproc)

demo: build
	./build/release/tools/zrv/zrv demo

test: build
	./scripts/run-tests.sh release

test-asan: bootstrap
	cmake --preset asan >/dev/null
	cmake --build --preset asan -j $$(nproc)
	./scripts/run-tests.sh asan

clean:
	rm -rf build
