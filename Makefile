# Entry points for a fresh Debian machine: `make run` and `make test`.
BUILD ?= build
JOBS ?= 2
CMAKE_FLAGS ?=

.PHONY: run test build deps configure clean tsan asan bench package

deps:
	@scripts/install-deps

configure: deps
	@cmake -S . -B $(BUILD) $(CMAKE_FLAGS) >/dev/null

build: configure
	@cmake --build $(BUILD) -j $(JOBS)

run: build
	@$(BUILD)/rxbroker

test: build
	@cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

# The Debian package (build-package/rxmemory_VERSION_ARCH.deb): a Release build
# of its own with prefix /usr, without the tests.
package: deps
	@cmake -S . -B build-package -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr -DRX_BUILD_TESTS=OFF \
		$(CMAKE_FLAGS) >/dev/null
	@cmake --build build-package -j $(JOBS)
	@cd build-package && cpack
	@ls build-package/*.deb

# Sanitizer builds in their own directories.
asan:
	@$(MAKE) test BUILD=build-asan CMAKE_FLAGS="-DRX_SANITIZE=address"
tsan:
	@$(MAKE) test BUILD=build-tsan CMAKE_FLAGS="-DRX_SANITIZE=thread"

# Benchmarks (never part of `make test`): in-process figures against a bare
# map-and-locks floor, then the memory over the network next to redis-server,
# then the Python package next to the C++ client.
# Writes docs/perf_roundtrip.{png,gp} and its data files.
bench:
	@scripts/install-deps --bench
	@cmake -S . -B build-bench -DRX_BUILD_BENCH=ON -DCMAKE_BUILD_TYPE=Release >/dev/null
	@cmake --build build-bench -j $(JOBS) --target memory_bench remote_driver remote_roundtrip \
		rxbroker client_figures rxmemory_python
	@build-bench/memory_bench --benchmark_repetitions=3 --benchmark_report_aggregates_only=true
	@build-bench/remote_roundtrip
	@build-bench/remote_driver docs
	@/usr/bin/python3 bench/python_bench.py build-bench

clean:
	rm -rf build build-asan build-tsan build-bench build-package
