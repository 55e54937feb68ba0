# The whole set-up: `make run` and `make test`. Both install what is missing
# first: `make run` what building and running need, `make test` (and `make fuzz`,
# `make bench`, `make lint`) the test packages too. Plain `make` only builds.
BUILD ?= build
JOBS ?= $(shell nproc)
# Extra gpuvet arguments for `make run`, e.g. GPUVET_ARGS="--gpu 0 --details".
GPUVET_ARGS ?=

.PHONY: all build deps-run deps-test run test test-debug test-asan test-tsan fuzz bench lint clean windows test-windows

all: build

deps-run:
	@bash scripts/install-deps.sh run

deps-test:
	@bash scripts/install-deps.sh test

build:
	cmake -S . -B $(BUILD)/release -DCMAKE_BUILD_TYPE=Release -DGPUVET_TESTS=OFF
	cmake --build $(BUILD)/release -j$(JOBS) --target gpuvet gpuvet-lists

run: deps-run build
	@bash scripts/run-local.sh $(BUILD)/release/src/gpuvet examples/blacklist.xml examples/whitelist.xml \
		$(BUILD)/results $(GPUVET_ARGS)

# The whole suite in a Debug build with warnings as errors, then again under
# AddressSanitizer and UndefinedBehaviorSanitizer, then the threaded parts under
# ThreadSanitizer.
test: deps-test test-debug test-asan test-tsan test-windows

test-debug:
	cmake -S . -B $(BUILD)/test -DCMAKE_BUILD_TYPE=Debug -DGPUVET_WERROR=ON
	cmake --build $(BUILD)/test -j$(JOBS)
	cd $(BUILD)/test && ctest --output-on-failure -j$(JOBS)

test-asan:
	cmake -S . -B $(BUILD)/asan -DCMAKE_BUILD_TYPE=Debug -DGPUVET_WERROR=ON -DGPUVET_SANITIZE=address,undefined
	cmake --build $(BUILD)/asan -j$(JOBS)
	cd $(BUILD)/asan && ctest --output-on-failure -j$(JOBS)

test-tsan:
	cmake -S . -B $(BUILD)/tsan -DCMAKE_BUILD_TYPE=Debug -DGPUVET_WERROR=ON -DGPUVET_SANITIZE=thread
	cmake --build $(BUILD)/tsan -j$(JOBS)
	cd $(BUILD)/tsan && ctest --output-on-failure -j$(JOBS) -L 'watchdog|e2e'

# gpuvet.exe for 64-bit Windows, cross-built with mingw-w64: $(BUILD)/windows/gpuvet.exe.
WINDOWS_DEPS = $(abspath $(BUILD))/windows-deps
windows:
	@bash scripts/install-windows-deps.sh $(WINDOWS_DEPS)
	cmake -S . -B $(BUILD)/windows -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake -DCMAKE_BUILD_TYPE=Release \
		-DGPUVET_WERROR=ON -DGPUVET_WINDOWS_DEPS=$(WINDOWS_DEPS) \
		-DGPUVET_TEST_ICD=$(abspath $(BUILD))/windows/libgpuvet_test_icd.so
	cmake --build $(BUILD)/windows -j$(JOBS) --target gpuvet

# The Windows suite: the real gpuvet.exe under Wine, with the test ICD built natively.
test-windows: windows
	cmake --build $(BUILD)/windows -j$(JOBS)
	cc -shared -fPIC -O1 -o $(BUILD)/windows/libgpuvet_test_icd.so tests/test_icd/test_icd.c
	cd $(BUILD)/windows && ctest --output-on-failure -L windows

# Every libFuzzer target for FUZZ_SECONDS each (clang, ASan and UBSan).
FUZZ_SECONDS ?= 60
fuzz: deps-test
	cmake -S . -B $(BUILD)/fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang \
		-DCMAKE_CXX_COMPILER=clang++ -DGPUVET_FUZZ=ON -DGPUVET_TESTS=OFF
	cmake --build $(BUILD)/fuzz -j$(JOBS)
	bash scripts/run-fuzzers.sh $(BUILD)/fuzz $(FUZZ_SECONDS)

# The fleet of the impact benchmark: this many snapshots against lists of 1,000 items.
FLEET_MACHINES ?= 1000000
# The Google Benchmark suite and the whole-run figures, in one report:
# $(BUILD)/bench/report.md.
bench: deps-test
	cmake -S . -B $(BUILD)/bench -DCMAKE_BUILD_TYPE=Release -DGPUVET_BENCH=ON
	cmake --build $(BUILD)/bench -j$(JOBS) --target gpuvet_bench_lists gpuvet_bench_result_file gpuvet_bench_whole_run \
		gpuvet_bench_fleet gpuvet-lists
	bash scripts/bench-report.sh $(BUILD)/bench $(FLEET_MACHINES)

# clang-tidy and cppcheck over the tool's own sources; quiet when all is well.
lint: deps-test
	cmake -S . -B $(BUILD)/test -DCMAKE_BUILD_TYPE=Debug -DGPUVET_WERROR=ON
	bash scripts/lint.sh $(BUILD)/test

clean:
	rm -rf $(BUILD)
