# The whole set-up: `make run` and `make test`. Both install what is missing
# first: `make run` what building and running need, `make test` (and `make fuzz`,
# `make bench`, `make lint`) the test packages too. Plain `make` only builds.
BUILD ?= build
JOBS ?= $(shell nproc)
# Tests run this many at a time: most of an end-to-end test is the watchdog's
# one-second tick and Wine's start-up, not work for the processor.
TEST_JOBS ?= $(shell echo $$(( $(JOBS) * 4 )))
# Extra gpuvet arguments for `make run`, e.g. GPUVET_ARGS="--gpu 0 --details".
GPUVET_ARGS ?=
# Where `make install` puts the tools; DESTDIR, when set, is put in front of it.
PREFIX ?= /usr/local
# The project's version, kept in CMakeLists.txt alone.
VERSION := $(shell grep -om1 'gpuvet VERSION [0-9.]*' CMakeLists.txt | cut -d' ' -f3)

.PHONY: all build deps-run deps-test deps-package run install test asan test-debug test-asan test-tsan \
	test-package package-checks test-fuzz fuzz fuzz-build bench lint clean deb windows windows-zip test-windows \
	windows-suite

all: build

deps-run:
	@bash scripts/install-deps.sh run

deps-test:
	@bash scripts/install-deps.sh test

deps-package:
	@bash scripts/install-deps.sh package

# Both tools and their manual pages: $(BUILD)/release/bin/ and $(BUILD)/release/man/.
build:
	cmake -S . -B $(BUILD)/release -DCMAKE_BUILD_TYPE=Release -DGPUVET_TESTS=OFF
	cmake --build $(BUILD)/release -j$(JOBS)

run: deps-run build
	@bash scripts/run-local.sh $(BUILD)/release/bin examples $(BUILD)/results $(GPUVET_ARGS)

# The tools into $(DESTDIR)$(PREFIX)/bin, the manual pages into share/man/man1,
# the README into share/doc/gpuvet, the examples into share/doc/gpuvet/examples.
install: build
	DESTDIR=$(DESTDIR) cmake --install $(BUILD)/release --prefix $(PREFIX)

# The whole suite, built once, in a Debug build with warnings as errors under
# AddressSanitizer and UndefinedBehaviorSanitizer. Its end-to-end suite then runs
# again over the tools built with ThreadSanitizer, and over the tools of the
# Debian package as it installs them, while the Windows archive builds. Last,
# the Windows suite runs on the unpacked archive, while every fuzz target builds
# and runs a few seconds. Checks that mostly wait (for the watchdog's tick, for
# Wine) thus run beside a build; each part's output shows when it is done.
test: deps-test test-asan test-tsan deb
	$(MAKE) -j2 --output-sync=target package-checks windows-zip
	$(MAKE) -j2 --output-sync=target windows-suite test-fuzz

# The end-to-end suite of the sanitizer build over the tools in folder $(1).
e2e_suite_over = cd $(BUILD)/asan && GPUVET_E2E_TOOLS=$(1) ctest --output-on-failure -j$(TEST_JOBS) -L e2e

asan:
	cmake -S . -B $(BUILD)/asan -DCMAKE_BUILD_TYPE=Debug -DGPUVET_WERROR=ON -DGPUVET_SANITIZE=address,undefined
	cmake --build $(BUILD)/asan -j$(JOBS)

test-asan: asan
	cd $(BUILD)/asan && ctest --output-on-failure -j$(TEST_JOBS)

# gpuvet and the watchdog's own tests built with ThreadSanitizer: a run's two
# threads are gpuvet's. The end-to-end suite runs over this gpuvet, beside the
# gpuvet-lists of the sanitizer build, whose own work has one thread.
TSAN_TOOLS = $(abspath $(BUILD))/tsan/tools
test-tsan: asan
	cmake -S . -B $(BUILD)/tsan -DCMAKE_BUILD_TYPE=Debug -DGPUVET_WERROR=ON -DGPUVET_SANITIZE=thread \
		-DGPUVET_MANUALS=OFF
	cmake --build $(BUILD)/tsan -j$(JOBS) --target threaded
	cd $(BUILD)/tsan && ctest --output-on-failure -j$(TEST_JOBS) -L watchdog
	mkdir -p $(TSAN_TOOLS)
	ln -sf $(abspath $(BUILD))/tsan/bin/gpuvet $(abspath $(BUILD))/asan/bin/gpuvet-lists $(TSAN_TOOLS)/
	$(call e2e_suite_over,$(TSAN_TOOLS))

# A plain Debug build and its whole suite: the quick round while working.
test-debug:
	cmake -S . -B $(BUILD)/test -DCMAKE_BUILD_TYPE=Debug -DGPUVET_WERROR=ON
	cmake --build $(BUILD)/test -j$(JOBS)
	cd $(BUILD)/test && ctest --output-on-failure -j$(TEST_JOBS)

# The Debian package, built the Debian way from a copy of the sources in
# $(BUILD)/deb, and checked with lintian: $(BUILD)/deb/gpuvet_$(VERSION)_*.deb.
deb: deps-package
	bash scripts/build-deb.sh $(BUILD)/deb $(VERSION) $(JOBS)

# The package installed into a scratch root, both tools run from there, and
# the end-to-end suite over them: the tools as the package ships them.
test-package: deb asan
	$(MAKE) package-checks

# What test-package checks, of a package and a build already made.
package-checks:
	bash scripts/check-package.sh $(BUILD)/deb $(VERSION)
	$(call e2e_suite_over,$(abspath $(BUILD))/deb/root/usr/bin)

# Both tools for 64-bit Windows, cross-built with mingw-w64: $(BUILD)/windows/bin/*.exe.
WINDOWS_DEPS = $(abspath $(BUILD))/windows-deps
windows:
	@bash scripts/install-windows-deps.sh $(WINDOWS_DEPS)
	cmake -S . -B $(BUILD)/windows -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake -DCMAKE_BUILD_TYPE=Release \
		-DGPUVET_WERROR=ON -DGPUVET_WINDOWS_DEPS=$(WINDOWS_DEPS) \
		-DGPUVET_TEST_ICD=$(abspath $(BUILD))/windows/libgpuvet_test_icd.so \
		-DGPUVET_NATIVE_LISTS=$(abspath $(BUILD))/asan/bin/gpuvet-lists
	cmake --build $(BUILD)/windows -j$(JOBS) --target gpuvet gpuvet-lists

# $(BUILD)/windows/gpuvet-$(VERSION)-win64.zip: both .exe files, README.txt and the examples.
windows-zip: windows
	cmake --build $(BUILD)/windows -j$(JOBS) --target windows-zip

# The Windows suite: the executables of the unpacked archive under Wine, with
# the test ICD built natively, and the native gpuvet-lists of the sanitizer
# build reading the snapshots taken under Wine.
test-windows: windows-zip asan
	$(MAKE) windows-suite

# What test-windows runs, on an archive and a build already made.
windows-suite:
	cmake --build $(BUILD)/windows -j$(JOBS)
	cc -shared -fPIC -O1 -o $(BUILD)/windows/libgpuvet_test_icd.so tests/test_icd/test_icd.c
	cd $(BUILD)/windows && ctest --output-on-failure -L windows

# Every libFuzzer target for FUZZ_SECONDS each (clang, ASan and UBSan); what a
# run finds lands in $(BUILD)/fuzz/artifacts/TARGET/.
FUZZ_SECONDS ?= 60
fuzz-build: deps-test
	cmake -S . -B $(BUILD)/fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang \
		-DCMAKE_CXX_COMPILER=clang++ -DGPUVET_FUZZ=ON -DGPUVET_TESTS=OFF -DGPUVET_MANUALS=OFF
	cmake --build $(BUILD)/fuzz -j$(JOBS) --target fuzzers

fuzz: fuzz-build
	bash scripts/run-fuzzers.sh $(BUILD)/fuzz $(FUZZ_SECONDS)

# In `make test`: every target builds and runs a few seconds, so none can rot.
test-fuzz: fuzz-build
	bash scripts/run-fuzzers.sh $(BUILD)/fuzz 5

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
