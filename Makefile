# Top-level entry points. Everything builds out of tree under build/ (or
# build-asan/ for the sanitizer pass); packages the build needs are installed
# first when we run as root on a Debian machine.

BUILD      ?= build
BUILD_TYPE ?= RelWithDebInfo
CMAKE_ARGS ?=
CTEST_ARGS ?=
JOBS       ?= $(shell nproc)
# Tests spend much of their time waiting on other processes (services,
# children, etcd), so the suite runs one test more than there are
# processors: on 2 processors 193 s instead of about 265 s.
TEST_JOBS  ?= $(shell expr $(JOBS) + 1)
PREFIX     ?= /usr/local

.PHONY: all deps configure build test install deb deb-test deb-chroot-test run bench soak soak-ci asan coverage fuzz clean

all: build

deps:
	@sh tools/install-deps.sh

$(BUILD)/build.ninja:
	@sh tools/install-deps.sh
	cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) $(CMAKE_ARGS)

configure: $(BUILD)/build.ninja

build: configure
	cmake --build $(BUILD) -j $(JOBS)

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(TEST_JOBS) $(CTEST_ARGS)

install: build
	cmake --install $(BUILD) --prefix $(PREFIX)

# Debian source and binary packages in build-deb/ (from the committed tree),
# checked with lintian; deb-test unpacks them into a fresh root and builds
# and runs a C, a C++ and a Python consumer against that root alone.
deb:
	@sh tools/install-deps.sh
	sh tools/make-deb.sh

deb-test: deb
	sh tests/install/deb_root_test.sh build-deb
	sh tools/deb-chroot-test.sh --optional build-deb

# As root: the packages installed and configured by apt in a fresh root made
# by debootstrap from this machine's apt source, and the consumers run there.
# deb-test runs it too, skipping it (with a line saying why) where root,
# debootstrap or the mirror is missing; this target fails there instead.
deb-chroot-test: deb
	sh tools/deb-chroot-test.sh build-deb

run: build
	sh tools/demo.sh $(BUILD)

bench: build
	$(BUILD)/bench/sfl_bench --out bench-results.json

# The long runs of the stress test, the I/O-fault loop with every fault kind,
# the crash loop (kills and power cuts), the power-cut loop with many draws
# per cut point and the interleaving loop at every call, then one summary
# line. soak-ci is the same, bounded to a few minutes, for CI: every fault
# kind on every operation still, fewer kills, a smaller stress run and a
# quarter of the interleavings. A loop with a wider mode adds one step to
# each. Each step's output is kept in $(SOAK_LOGS).
SOAK_LOGS = $(BUILD)/soak-logs
SOAK_STEP = sh tools/soak-step.sh $(BUILD) $(SOAK_LOGS)
# The quarter of the interleaving loop's test cases soak-ci runs at every
# call: another one each day, so that four days of CI cover every pair. A
# restart of the service held at each of its ~150 calls against every
# operation takes half an hour: soak-ci leaves that one case to make test's
# bounded run and to the full soak (the restart still meets every other
# case here as the second operation).
SOAK_CI_SHARD ?= $(shell echo $$(( $$(date +%s) / 86400 % 4 )))

soak: build
	@rm -rf $(SOAK_LOGS)
	$(SOAK_STEP) stress SFL_STRESS_PROCS=16 SFL_STRESS_OPS=20000 $(BUILD)/tests/stress_test
	$(SOAK_STEP) faults SFL_FAULT_SOAK=1 $(BUILD)/tests/sfl_faultloop_test
	$(SOAK_STEP) crashes SFL_CRASH_KILLS=1000 SFL_POWERCUT_ROUNDS=1000 $(BUILD)/tests/sfl_crashloop_test
	$(SOAK_STEP) powercuts SFL_POWERCUT_DRAWS=40 SFL_POWERCUT_GARBAGE_DRAWS=10 $(BUILD)/tests/sfl_powercut_test
	$(SOAK_STEP) interleavings SFL_INTERLEAVE_SOAK=1 $(BUILD)/tests/sfl_interleave_test
	@sh tools/soak-summary.sh $(SOAK_LOGS)

soak-ci: build
	@rm -rf $(SOAK_LOGS)
	$(SOAK_STEP) stress SFL_STRESS_PROCS=16 SFL_STRESS_OPS=5000 $(BUILD)/tests/stress_test
	$(SOAK_STEP) faults SFL_FAULT_SOAK=1 $(BUILD)/tests/sfl_faultloop_test
	$(SOAK_STEP) crashes SFL_CRASH_KILLS=300 SFL_POWERCUT_ROUNDS=200 $(BUILD)/tests/sfl_crashloop_test
	$(SOAK_STEP) powercuts SFL_POWERCUT_DRAWS=10 SFL_POWERCUT_GARBAGE_DRAWS=3 $(BUILD)/tests/sfl_powercut_test
	$(SOAK_STEP) interleavings SFL_INTERLEAVE_SOAK=1 GTEST_TOTAL_SHARDS=4 GTEST_SHARD_INDEX=$(SOAK_CI_SHARD) \
	  GTEST_FILTER='-*/service_restart' $(BUILD)/tests/sfl_interleave_test
	@sh tools/soak-summary.sh $(SOAK_LOGS)

asan:
	$(MAKE) test BUILD=build-asan BUILD_TYPE=Debug CMAKE_ARGS="-DSFL_SANITIZE=ON -DSFL_BUILD_BENCH=OFF $(CMAKE_ARGS)"

# The whole suite in a build with coverage counters (build-cov/), then a
# report on the terminal and in build-cov/coverage/index.html, and the
# floor check of lib/ (.ci/coverage-floor).
coverage:
	$(MAKE) build BUILD=build-cov BUILD_TYPE=Debug CMAKE_ARGS="-DSFL_COVERAGE=ON -DSFL_BUILD_BENCH=OFF $(CMAKE_ARGS)"
	find build-cov -name '*.gcda' -delete
	cd build-cov && ctest --output-on-failure -j $(TEST_JOBS) $(CTEST_ARGS)
	JOBS=$(JOBS) sh tools/coverage-report.sh build-cov

# The libFuzzer targets (fuzz/), built with clang in build-fuzz/, each run
# for FUZZ_SECONDS from the corpus kept in fuzz/corpus/.
FUZZ_SECONDS ?= 60
FUZZ_TARGETS = open_read check dump itemref service_msg
fuzz:
	@sh tools/install-deps.sh
	cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DSFL_FUZZ=ON \
	  -DSFL_BUILD_TESTS=OFF -DSFL_BUILD_BENCH=OFF $(CMAKE_ARGS)
	cmake --build build-fuzz -j $(JOBS) --target $(addprefix fuzz_,$(FUZZ_TARGETS))
	sh tools/run-fuzz.sh build-fuzz $(FUZZ_SECONDS) $(FUZZ_TARGETS)

clean:
	rm -rf build build-asan build-cov build-fuzz build-deb
