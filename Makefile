# The front door. Each target first installs what it needs (scripts/bootstrap), so all of them work on a fresh Debian.
#
#   make demo      builds, and shows several processes that share one registry
#   make test      builds and runs every test              PRESET=amd64 etc. for another build
#   make check     the tests, again under the sanitizers, and clang's analysis of the locks
#   make soak      everything at once in 14 processes, among kills, full disks and clock steps   SOAK_MINUTES=10 SOAK_SEED=
#   make stress    the kernel's stress tests at full length: 10 million signals a lane, about half an hour
#   make bench     every benchmark beside its floor        PRESET=amd64 for 64-bit
#   make figures   the same, and its figures and chart into docs/performance.*
#   make fuzz      each parser against made-up inputs      FUZZ_SECONDS=600 for each target
#   make coverage  the tests once more, and what they reach of the library and its tools
#   make install   into PREFIX (/usr/local), below DESTDIR
#   make package   a Debian package, in build/package/$(PRESET): PRESET=amd64 for 64-bit
#   make docs      the reference of the public headers, in build/docs
#   make format, make lint, make clean
PRESET ?= i386
PREFIX ?= /usr/local
JOBS ?= $(shell nproc)
# A test that hangs is stopped by its own time-out; this bounds the whole run.
SUITE_SECONDS ?= 1500
FUZZ_SECONDS ?= 60
SOAK_MINUTES ?= 10
FUZZ_TARGETS ?= $(patsubst fuzz/%_fuzz.cpp,%,$(wildcard fuzz/*_fuzz.cpp))

BUILD = build/$(PRESET)
export PRESET

.PHONY: all demo test check soak stress bench fuzz coverage install package docs format lint clean build

all: build

build:
	@scripts/bootstrap build test
	cmake --preset $(PRESET)
	cmake --build $(BUILD) --parallel $(JOBS)

demo:
	@scripts/bootstrap build test
	cmake --preset $(PRESET)
	cmake --build $(BUILD) --parallel $(JOBS) --target appserver kzreg
	$(BUILD)/examples/appserver demo

# Under the thread sanitizer a process has a second thread from the start, and only root may then leave the machine
# (tests/support/private_machine.h).
as_root = $(if $(findstring tsan,$(PRESET)),$(shell [ "$$(id -u)" = 0 ] || ! unshare --map-root-user true 2>/dev/null || echo unshare --map-root-user))

test: build
	timeout --foreground $(SUITE_SECONDS) $(as_root) ctest --no-tests=error --test-dir $(BUILD) --parallel $(JOBS) --output-on-failure \
	  --no-label-summary --output-junit $(CURDIR)/$(BUILD)/tests.xml

check:
	@scripts/bootstrap build test bench check
	$(MAKE) test PRESET=i386
	cmake --build build/i386 --parallel $(JOBS) --target benchmarks
	$(MAKE) test PRESET=i386-asan
	$(MAKE) test PRESET=amd64-tsan
	$(MAKE) build PRESET=amd64-clang

# With the seed that a page names, another run chooses alike, as far as its timing lets it.
soak:
	@scripts/bootstrap build test
	cmake --preset $(PRESET)
	cmake --build $(BUILD) --parallel $(JOBS) --target soak
	$(BUILD)/tests/soak --minutes $(SOAK_MINUTES) $(if $(SOAK_SEED),--seed $(SOAK_SEED))

stress: build
	TRAIKLOFOX_STRESS=10000000 $(BUILD)/tests/kernel_tests --gtest_filter='*LosesNoSignal*:*KeepTheInvariants*'

bench:
	@scripts/bootstrap build test bench
	cmake --preset $(PRESET) -DTRAIKLOFOX_BENCH=ON
	cmake --build $(BUILD) --parallel $(JOBS) --target benchmarks
	cmake --build $(BUILD) --target bench

figures: bench
	@scripts/bootstrap figures
	scripts/performance $(BUILD)/bench

# What it comes upon besides findings is kept in build/fuzz/corpus, for the next run to start from.
fuzz:
	@scripts/bootstrap build fuzz
	cmake --preset fuzz
	cmake --build build/fuzz --parallel $(JOBS) --target fuzzers
	@mkdir -p build/fuzz/findings
	@set -e; for target in $(FUZZ_TARGETS); do \
	  echo "$$target: $(FUZZ_SECONDS) seconds"; \
	  mkdir -p build/fuzz/corpus/$$target; \
	  UBSAN_OPTIONS=print_stacktrace=1 build/fuzz/fuzz/$${target}_fuzz -max_total_time=$(FUZZ_SECONDS) -max_len=16384 \
	    -timeout=20 $$([ ! -f fuzz/$$target.dict ] || echo -dict=$(CURDIR)/fuzz/$$target.dict) -artifact_prefix=$(CURDIR)/build/fuzz/findings/$$target- \
	    -close_fd_mask=3 -verbosity=0 -print_final_stats=1 $(CURDIR)/build/fuzz/corpus/$$target $(CURDIR)/fuzz/corpus/$$target; \
	done

# Counts add up from run to run, so each begins anew. A child without the right to write its own is no failure.
coverage:
	@scripts/bootstrap build test coverage
	cmake --preset coverage
	find build/coverage -name '*.gcda' -delete
	GCOV_ERROR_FILE=/dev/null $(MAKE) test PRESET=coverage
	scripts/coverage

install:
	@scripts/bootstrap build
	cmake --preset $(PRESET) -DTRAIKLOFOX_TESTS=OFF -DTRAIKLOFOX_BENCH=OFF -DCMAKE_INSTALL_PREFIX=$(PREFIX) -B build/install/$(PRESET)
	cmake --build build/install/$(PRESET) --parallel $(JOBS)
	cmake --install build/install/$(PRESET)
	@[ -n "$(DESTDIR)" ] || [ "$$(id -u)" != 0 ] || ldconfig

package:
	@scripts/bootstrap build package
	cmake --preset $(PRESET) -DTRAIKLOFOX_TESTS=OFF -DTRAIKLOFOX_BENCH=OFF -DTRAIKLOFOX_PACKAGE=ON -B build/package/$(PRESET)
	cmake --build build/package/$(PRESET) --parallel $(JOBS)
	cd build/package/$(PRESET) && cpack -G DEB

docs:
	@scripts/bootstrap docs
	@mkdir -p build/docs
	doxygen docs/Doxyfile

format:
	@scripts/bootstrap lint
	find include src tests bench examples tools fuzz -name '*.cpp' -o -name '*.h' 2>/dev/null | xargs clang-format -i

lint: docs
	@scripts/bootstrap build lint
	scripts/lint

clean:
	rm -rf build
