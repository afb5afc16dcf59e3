# Entry points for a fresh Debian machine: `make run` and `make test`.
BUILD ?= build
JOBS ?= 2
CMAKE_FLAGS ?=

.PHONY: run test build deps configure clean tsan asan

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

# Sanitizer builds in their own directories.
asan:
	@$(MAKE) test BUILD=build-asan CMAKE_FLAGS="-DRX_SANITIZE=address"
tsan:
	@$(MAKE) test BUILD=build-tsan CMAKE_FLAGS="-DRX_SANITIZE=thread"

clean:
	rm -rf build build-asan build-tsan
