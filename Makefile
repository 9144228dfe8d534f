# libqosa: the commands. `make demo` and `make check` do all the set-up.
JOBS    ?= $(shell nproc)
PREFIX  ?= /usr/local
FUZZ_SECONDS ?= 60
# Floors of `make coverage`, in percent of the library's lines and branches.
COV_LINES    ?= 97
COV_BRANCHES ?= 90
CTEST   := ctest --output-on-failure -j $(JOBS) --timeout 300
GEN     := -G Ninja
# TSan needs the classic address-space layout; run its tests without ASLR.
NOASLR  := setarch $(shell uname -m) -R

.PHONY: all deps deps-arm64 demo check check-asan check-tsan check-arm64 coverage package bench install lint fuzz docs abi-check \
        abi-baseline clean

all: check

deps:
	@./tools/install-deps.sh

deps-arm64:
	@./tools/install-deps.sh arm64

build/build.ninja: | deps
	cmake -S . -B build $(GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo

demo: build/build.ninja
	cmake --build build --target qosa-demo -j $(JOBS)
	./build/examples/qosa-demo

check: build/build.ninja
	cmake --build build -j $(JOBS)
	cd build && $(CTEST)

check-asan: | deps
	cmake -S . -B build-asan $(GEN) -DCMAKE_BUILD_TYPE=Debug -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
	      -DQOSA_SANITIZE=address -DQOSA_BUILD_EXAMPLES=OFF
	cmake --build build-asan -j $(JOBS)
	cd build-asan && ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 UBSAN_OPTIONS=print_stacktrace=1 $(CTEST)

check-tsan: | deps
	cmake -S . -B build-tsan $(GEN) -DCMAKE_BUILD_TYPE=Debug -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
	      -DQOSA_SANITIZE=thread -DQOSA_BUILD_EXAMPLES=OFF
	cmake --build build-tsan -j $(JOBS)
	cd build-tsan && TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 $(NOASLR) $(CTEST)

# The library and the tests cross-built for 64-bit ARM, run under qemu-user.
check-arm64: | deps-arm64
	cmake -S . -B build-arm64 $(GEN) -DCMAKE_TOOLCHAIN_FILE=$(CURDIR)/cmake/aarch64-linux-gnu.cmake \
	      -DCMAKE_BUILD_TYPE=Release -DQOSA_GTEST_SOURCE_DIR=/usr/src/googletest -DQOSA_BUILD_EXAMPLES=OFF
	cmake --build build-arm64 -j $(JOBS)
	cd build-arm64 && $(CTEST)

# Line and branch coverage of the library's sources (not the tests) by the
# whole suite: a gcc --coverage build at -O0, fresh counters, then gcovr.
# Counters are updated atomically: the library's threads share them.
# QOSA_COVERAGE lets forked test children write their counters.
COV_FLAGS := --coverage -fprofile-update=atomic
coverage: | deps
	cmake -S . -B build-cov $(GEN) -DCMAKE_BUILD_TYPE=Debug -DQOSA_BUILD_EXAMPLES=OFF \
	      -DCMAKE_C_COMPILER=gcc -DCMAKE_CXX_COMPILER=g++ "-DCMAKE_C_FLAGS=$(COV_FLAGS)" \
	      "-DCMAKE_CXX_FLAGS=$(COV_FLAGS) -DQOSA_COVERAGE" \
	      "-DCMAKE_EXE_LINKER_FLAGS=$(COV_FLAGS)" "-DCMAKE_SHARED_LINKER_FLAGS=$(COV_FLAGS)"
	cmake --build build-cov -j $(JOBS)
	find build-cov -name '*.gcda' -delete
	cd build-cov && $(CTEST)
	gcovr --root . --object-directory build-cov --exclude-directories 'build-cov/CMakeFiles/[0-9]' \
	      --filter 'BasicComponents/' -j $(JOBS) \
	      --exclude-throw-branches --exclude-unreachable-branches \
	      --html-details build-cov/coverage.html --txt - --print-summary \
	      --fail-under-line $(COV_LINES) --fail-under-branch $(COV_BRANCHES)

# Library vs the plain platform call, alternating rounds; BENCH_ARGS='--filter=queue --rounds=9'.
bench: | deps
	cmake -S . -B build-bench $(GEN) -DCMAKE_BUILD_TYPE=Release -DQOSA_BUILD_BENCH=ON -DQOSA_BUILD_TESTS=OFF \
	      -DQOSA_BUILD_EXAMPLES=OFF
	cmake --build build-bench --target qosa-bench -j $(JOBS)
	./build-bench/bench/qosa-bench --markdown=build-bench/bench.md $(BENCH_ARGS)

# libFuzzer (clang) under ASan+UBSan: each target in turn for FUZZ_SECONDS.
# New inputs go to build-fuzz/corpus/<target>; committed seeds, where there
# are any, are read from fuzz/corpus/<target>.
FUZZ_TARGETS := utf8 bounded parsers
fuzz: | deps
	cmake -S . -B build-fuzz $(GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
	      -DQOSA_BUILD_FUZZ=ON -DQOSA_BUILD_TESTS=OFF -DQOSA_BUILD_EXAMPLES=OFF
	cmake --build build-fuzz --target $(addprefix fuzz_,$(FUZZ_TARGETS)) -j $(JOBS)
	@set -e; for t in $(FUZZ_TARGETS); do \
	  mkdir -p build-fuzz/corpus/$$t build-fuzz/crashes; \
	  echo "fuzz_$$t: $(FUZZ_SECONDS) s (log: build-fuzz/fuzz_$$t.log)"; \
	  if ! ./build-fuzz/fuzz/fuzz_$$t -max_total_time=$(FUZZ_SECONDS) -max_len=4096 -print_final_stats=1 \
	       -artifact_prefix=build-fuzz/crashes/$$t- build-fuzz/corpus/$$t $$(ls -d fuzz/corpus/$$t 2>/dev/null) \
	       > build-fuzz/fuzz_$$t.log 2>&1; then tail -n 80 build-fuzz/fuzz_$$t.log; exit 1; fi; \
	  grep -E '^(Done |stat::new_units_added)' build-fuzz/fuzz_$$t.log; \
	done

# The API reference from the public headers (Doxygen; a warning fails it): build/docs/html/index.html.
docs: build/build.ninja | deps
	cmake --build build --target docs

# The ABI guard: the freshly built libqosa.so.1 against the baseline in abi/ (tools/abi.sh).
abi-check: build/build.ninja | deps
	cmake --build build --target qosa -j $(JOBS)
	./tools/abi.sh check build/libqosa.so.1

# After a deliberate ABI change: make the built library's ABI the new baseline (commit abi/).
abi-baseline: build/build.ninja | deps
	cmake --build build --target qosa -j $(JOBS)
	./tools/abi.sh baseline build/libqosa.so.1

# Debian packages libqosa1 and libqosa-dev (build/*.deb) from the plain build.
package: build/build.ninja
	cmake --build build -j $(JOBS)
	cd build && cpack -G DEB

install: build/build.ninja
	cmake --build build -j $(JOBS)
	cmake --install build --prefix $(PREFIX)

lint: build/build.ninja
	git ls-files '*.cpp' '*.h' '*.c' | xargs clang-format --dry-run -Werror
	git ls-files 'BasicComponents/*.cpp' | xargs clang-tidy -p build --quiet

clean:
	rm -rf build build-asan build-tsan build-cov build-bench build-fuzz build-arm64
