# Front door: every target first installs what is missing from Debian.
BUILD        ?= build
ASAN_BUILD   ?= build-asan
TSAN_BUILD   ?= build-tsan
FUZZ_SECONDS ?= 60
FUZZ_SMOKE_SECONDS ?= 3
KILL_ROUNDS  ?= 400
JOBS         ?= $(shell nproc)
# Warnings are errors (-Wshadow included) in every build make test makes;
# WERROR=OFF for a compiler this tree has not met yet.
WERROR       ?= ON
export FUZZ_JOBS ?= $(JOBS)

export ASAN_OPTIONS  ?= detect_leaks=1:strict_string_checks=1:detect_stack_use_after_return=1
export UBSAN_OPTIONS ?= print_stacktrace=1:halt_on_error=1

.PHONY: all deps build build-asan build-fuzz format-check test test-normal test-asan fuzz fuzz-smoke bench demo install clean tsan

all: build

deps:
	@bash scripts/install-deps.sh

build: deps
	cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Release -DZEPH_WERROR=$(WERROR)
	cmake --build $(BUILD) -j $(JOBS)

# One sanitizer build serves the suite and the fuzz targets: clang with
# AddressSanitizer + UndefinedBehaviorSanitizer and libFuzzer's coverage hooks.
build-asan: deps
	CC=clang CXX=clang++ cmake -S . -B $(ASAN_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZEPH_SANITIZE=ON \
	  -DZEPH_FUZZ=ON -DZEPH_BENCH=OFF -DZEPH_WERROR=$(WERROR)
	cmake --build $(ASAN_BUILD) -j $(JOBS)

build-fuzz: build-asan

# Every tracked C and C++ file exactly as clang-format writes it.
format-check: deps
	@git ls-files -z '*.c' '*.cc' '*.cpp' '*.h' '*.hpp' | xargs -0 clang-format --dry-run --Werror
	@echo "format-check: clean"

# The suite needs the tests and what they run, not the benchmarks.
test-normal: deps
	cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Release -DZEPH_WERROR=$(WERROR)
	cmake --build $(BUILD) -j $(JOBS) --target zeph_tests
	ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS)

test-asan: build-asan
	ctest --test-dir $(ASAN_BUILD) --output-on-failure -j $(JOBS)

fuzz-smoke: build-asan
	bash scripts/fuzz.sh $(ASAN_BUILD) $(FUZZ_SMOKE_SECONDS)

# Format check, fuzz smoke, then the whole suite twice: plain (g++) and under
# AddressSanitizer + UndefinedBehaviorSanitizer (clang).
test: deps
	$(MAKE) format-check
	$(MAKE) fuzz-smoke
	$(MAKE) test-normal
	$(MAKE) test-asan

# The fuzz targets, then kill -9 at random moments of software-key work
# (PIN checks, signatures, file writes) with what survives checked.
fuzz: build-asan build
	bash scripts/fuzz.sh $(ASAN_BUILD) $(FUZZ_SECONDS)
	bash scripts/softkey-kill-loop.sh $(BUILD) $(KILL_ROUNDS)

# ThreadSanitizer over the code that promises threads: randomness contexts
# and runners at once (a small build of its own, outside `make test`).
tsan: deps
	cmake -S . -B $(TSAN_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZEPH_TSAN=ON -DZEPH_BENCH=OFF
	cmake --build $(TSAN_BUILD) -j $(JOBS) --target test_randtest
	TSAN_OPTIONS=halt_on_error=1 $(TSAN_BUILD)/tests/test_randtest --gtest_filter='Threads.*:Numerics.LogGamma*'

bench: build
	bash scripts/bench.sh $(BUILD)

demo: build
	bash scripts/demo.sh $(BUILD)

install: build
	cmake --install $(BUILD)

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(TSAN_BUILD)
