# The two front-door commands.  Everything else is CMake.
BUILD      ?= build
ASAN_BUILD ?= build-asan
TSAN_BUILD ?= build-tsan
FUZZ_BUILD ?= build-fuzz
# Seconds each fuzz target runs under `make fuzz`.
FUZZ_TIME  ?= 600
FUZZ_TARGETS = filter dn decode keyfile hosts split document
JOBS       ?= $(shell nproc)

.PHONY: all deps build build-asan tsan build-fuzz fuzz-keys fuzz fuzz-smoke test demo console bench bench-deps bench-instructions clean

all: build

deps:
	@bash scripts/deps.sh

build: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo
	cmake --build $(BUILD) -j$(JOBS)

build-asan: deps
	cmake -S . -B $(ASAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DZEL_SANITIZE=ON -DZEL_BUILD_BENCH=OFF
	cmake --build $(ASAN_BUILD) -j$(JOBS)

# Sessions on several threads under ThreadSanitizer: only what that test needs.
tsan: deps
	cmake -S . -B $(TSAN_BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZEL_TSAN=ON -DZEL_BUILD_BENCH=OFF
	cmake --build $(TSAN_BUILD) -j$(JOBS) --target zel_threads
	TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 $(TSAN_BUILD)/tests/zel_threads

# The fuzz targets and the library objects they need, built with clang.
build-fuzz: deps
	CC=clang CXX=clang++ cmake -S . -B $(FUZZ_BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZEL_FUZZ=ON \
	  -DZEL_BUILD_TESTS=OFF -DZEL_BUILD_BENCH=OFF
	cmake --build $(FUZZ_BUILD) -j$(JOBS) --target $(addprefix fuzz_,$(FUZZ_TARGETS))

# The library refuses a key file others may read, and a clone leaves
# fuzz/keys.txt at the umask's mode: the targets get a private copy.
FUZZ_KEYS = $(abspath $(FUZZ_BUILD))/keys.txt
fuzz-keys: build-fuzz
	install -m 600 fuzz/keys.txt $(FUZZ_KEYS)

# Each target for FUZZ_TIME seconds; what it finds goes to $(FUZZ_BUILD)/corpus.
fuzz: fuzz-keys
	for t in $(FUZZ_TARGETS); do mkdir -p $(FUZZ_BUILD)/corpus/$$t; \
	  ZEL_KEYFILE=$(FUZZ_KEYS) $(FUZZ_BUILD)/fuzz/fuzz_$$t -max_total_time=$(FUZZ_TIME) \
	    -artifact_prefix=$(FUZZ_BUILD)/ $(FUZZ_BUILD)/corpus/$$t fuzz/corpus/$$t || exit 1; done

# A few thousand runs each from the checked-in seeds, so the targets keep building and stay clean.
fuzz-smoke: fuzz-keys
	for t in $(FUZZ_TARGETS); do rm -rf $(FUZZ_BUILD)/smoke/$$t; mkdir -p $(FUZZ_BUILD)/smoke/$$t; \
	  ZEL_KEYFILE=$(FUZZ_KEYS) $(FUZZ_BUILD)/fuzz/fuzz_$$t -runs=20000 -max_total_time=10 \
	    -artifact_prefix=$(FUZZ_BUILD)/ $(FUZZ_BUILD)/smoke/$$t fuzz/corpus/$$t 2>$(FUZZ_BUILD)/smoke/$$t.log \
	    || { tail -40 $(FUZZ_BUILD)/smoke/$$t.log; exit 1; }; done

# Every test, in a normal build and in an AddressSanitizer+UBSan build, the
# thread test under ThreadSanitizer and a short run of each fuzz target.
test: build build-asan
	ctest --test-dir $(BUILD) --output-on-failure -j$(JOBS)
	ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 UBSAN_OPTIONS=print_stacktrace=1 \
	  ctest --test-dir $(ASAN_BUILD) --output-on-failure -j$(JOBS)
	$(MAKE) tsan fuzz-smoke

# The main job against a private directory it starts and stops itself.
demo: build
	bash scripts/demo.sh $(BUILD)

# The web console on 127.0.0.1 (CONSOLE_PORT, default 8080) over a private
# directory with sample data; Ctrl-C stops both.
console: build
	bash scripts/console.sh $(BUILD)

# Timings of the read paths against raw searches, per directory size
# (BENCH_SIZES, default 1000 10000 100000).  Not part of make test.
BENCH_SIZES ?= 1000 10000 100000
BENCH_IMPORT_USERS ?= 10000
bench: build bench-deps
	bash bench/run_bench.sh $(BUILD) $(BENCH_SIZES)
	bash bench/import_bench.sh $(BUILD) $(BENCH_IMPORT_USERS)

# Client instructions per read call under callgrind.
bench-instructions: build bench-deps
	bash bench/instructions.sh $(BUILD)

bench-deps:
	@bash scripts/deps.sh gnuplot-nox valgrind

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(TSAN_BUILD) $(FUZZ_BUILD)
