# The newcomer's door. Every target first installs what is missing, then
# configures and builds with CMake.
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=
WERROR ?= $(if $(CI),ON,OFF)
CTEST = ctest --output-on-failure -j $(JOBS)

.PHONY: deps build demo test bench sanitize tsan fuzz valgrind install clean format format-check

deps:
	@bash scripts/install-deps.sh

build: deps
	cmake -S . -B build -DVARKEL_WERROR=$(WERROR) $(CMAKE_FLAGS) >/dev/null
	cmake --build build -j $(JOBS)

# The main job on the simulator, in this process. Builds the demo and what the
# README runs next: the simulator on its own, the command line, the Python package.
# Each simulated controller takes 2 ms per reply, so that the parallel bring-up shows.
DEMO_FLAGS ?= --latency-us 2000
demo: deps
	cmake -S . -B build -DVARKEL_WERROR=$(WERROR) $(CMAKE_FLAGS) >/dev/null
	cmake --build build -j $(JOBS) --target varkel_programs
	./build/tools/varkel-demo $(DEMO_FLAGS) --png build/varkel-demo.png --log build/varkel-demo.log

test: build
	cd build && $(CTEST)

bench: deps
	cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DVARKEL_WERROR=$(WERROR) >/dev/null
	cmake --build build-bench -j $(JOBS) --target varkel_bench
	./build-bench/bench/varkel_bench --benchmark_repetitions=9 --benchmark_enable_random_interleaving=true \
	  --benchmark_report_aggregates_only=true

# The whole suite under AddressSanitizer and UndefinedBehaviorSanitizer.
sanitize: deps
	cmake -S . -B build-sanitize -DCMAKE_BUILD_TYPE=Debug -DVARKEL_WERROR=$(WERROR) \
	  -DVARKEL_SANITIZE=address,undefined -DVARKEL_BUILD_BENCH=OFF >/dev/null
	cmake --build build-sanitize -j $(JOBS)
	cd build-sanitize && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 $(CTEST)

# The whole suite under ThreadSanitizer. GCC's OpenMP runtime is invisible to
# it and gives false reports, so this build uses clang with LLVM's OpenMP
# runtime, whose archer tool tells the sanitizer about OpenMP synchronisation.
# Thread leaks are not reported: some data-server failures end the process by
# design while peer threads of the test still run.
TSAN_ENV = OMP_TOOL_LIBRARIES=/usr/lib/llvm-14/lib/libarcher.so \
  TSAN_OPTIONS=ignore_noninstrumented_modules=1:halt_on_error=1:report_thread_leaks=0

tsan: deps
	cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=Debug -DVARKEL_WERROR=$(WERROR) \
	  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
	  -DVARKEL_SANITIZE=thread -DVARKEL_BUILD_BENCH=OFF >/dev/null
	cmake --build build-tsan -j $(JOBS)
	cd build-tsan && $(TSAN_ENV) $(CTEST)

# The suite under valgrind's memcheck, errors and leaks fatal, in a build of its
# own without sanitizers: ctest runs every test binary under valgrind. Children
# of fork-based death tests stay under valgrind (silent), re-executed ones and
# shell commands run natively.
VALGRIND_SUPP = $(CURDIR)/scripts/valgrind.supp
VALGRIND = valgrind;--error-exitcode=1;--leak-check=full;--trace-children=no;--child-silent-after-fork=yes;--suppressions=$(VALGRIND_SUPP)

valgrind: deps
	cmake -S . -B build-valgrind -DVARKEL_WERROR=$(WERROR) -DVARKEL_BUILD_BENCH=OFF \
	  "-DCMAKE_CROSSCOMPILING_EMULATOR=$(VALGRIND)" >/dev/null
	cmake --build build-valgrind -j $(JOBS)
	cd build-valgrind && $(CTEST)

# libFuzzer targets (clang, address and undefined-behaviour sanitizers) over every
# parser of peer replies and records, each run FUZZ_SECONDS from its seeds in
# fuzz/corpus (with fuzz/<target>.dict where there is one). New inputs collect in
# build-fuzz/corpus, findings in build-fuzz/crashes; a finding goes to
# fuzz/crashes/<target>/ with its fix, and the normal test run replays it from
# then on.
FUZZ_SECONDS ?= 30
FUZZ_TARGETS = $(basename $(notdir $(wildcard fuzz/fuzz_*.cpp)))

fuzz: deps
	cmake -S . -B build-fuzz -DVARKEL_WERROR=$(WERROR) -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
	  -DVARKEL_FUZZ=ON -DVARKEL_SANITIZE=fuzzer-no-link,address,undefined \
	  -DVARKEL_BUILD_TESTS=OFF -DVARKEL_BUILD_BENCH=OFF >/dev/null
	cmake --build build-fuzz -j $(JOBS) --target varkel_fuzz
	@for t in $(FUZZ_TARGETS); do \
	  mkdir -p build-fuzz/corpus/$$t build-fuzz/crashes/$$t; \
	  echo "== $$t: $(FUZZ_SECONDS) s"; \
	  ./build-fuzz/fuzz/$$t -max_total_time=$(FUZZ_SECONDS) -print_final_stats=1 \
	    $$([ -f fuzz/$$t.dict ] && echo -dict=fuzz/$$t.dict) \
	    -artifact_prefix=build-fuzz/crashes/$$t/ build-fuzz/corpus/$$t fuzz/corpus/$$t || exit 1; \
	done

install: build
	cmake --install build

SOURCES = git ls-files -z '*.cpp' '*.hpp' '*.h'
format: deps
	$(SOURCES) | xargs -0 clang-format -i

# Fails on any tracked source that `make format` would change.
format-check: deps
	$(SOURCES) | xargs -0 clang-format --dry-run -Werror

clean:
	rm -rf build build-bench build-sanitize build-tsan build-fuzz build-valgrind
