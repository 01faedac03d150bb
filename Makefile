# The two front-door commands.  Everything else is CMake.
BUILD      ?= build
ASAN_BUILD ?= build-asan
JOBS       ?= $(shell nproc)

.PHONY: all deps build build-asan test demo bench bench-deps bench-instructions clean

all: build

deps:
	@bash scripts/deps.sh

build: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo
	cmake --build $(BUILD) -j$(JOBS)

build-asan: deps
	cmake -S . -B $(ASAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DZEL_SANITIZE=ON -DZEL_BUILD_BENCH=OFF
	cmake --build $(ASAN_BUILD) -j$(JOBS)

# Every test, in a normal build and in an AddressSanitizer+UBSan build.
test: build build-asan
	ctest --test-dir $(BUILD) --output-on-failure -j$(JOBS)
	ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 UBSAN_OPTIONS=print_stacktrace=1 \
	  ctest --test-dir $(ASAN_BUILD) --output-on-failure -j$(JOBS)

# The main job against a private directory it starts and stops itself.
demo: build
	bash scripts/demo.sh $(BUILD)

# Timings of the read paths against raw searches, per directory size
# (BENCH_SIZES, default 1000 10000 100000).  Not part of make test.
BENCH_SIZES ?= 1000 10000 100000
bench: build bench-deps
	bash bench/run_bench.sh $(BUILD) $(BENCH_SIZES)

# Client instructions per read call under callgrind.
bench-instructions: build bench-deps
	bash bench/instructions.sh $(BUILD)

bench-deps:
	@bash scripts/deps.sh gnuplot-nox valgrind

clean:
	rm -rf $(BUILD) $(ASAN_BUILD)
