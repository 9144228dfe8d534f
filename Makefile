# libqosa: the commands. `make demo` and `make check` do all the set-up.
JOBS    ?= $(shell nproc)
PREFIX  ?= /usr/local
FUZZ_SECONDS ?= 60
CTEST   := ctest --output-on-failure -j $(JOBS) --timeout 300
GEN     := -G Ninja
# TSan needs the classic address-space layout; run its tests without ASLR.
NOASLR  := setarch $(shell uname -m) -R

.PHONY: all deps deps-arm64 demo check check-asan check-tsan check-arm64 package bench install lint fuzz docs abi-check \
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

# Library vs the plain platform call, alternating rounds; BENCH_ARGS='--filter=queue --rounds=9'.
bench: | deps
	cmake -S . -B build-bench $(GEN) -DCMAKE_BUILD_TYPE=Release -DQOSA_BUILD_BENCH=ON -DQOSA_BUILD_TESTS=OFF \
	      -DQOSA_BUILD_EXAMPLES=OFF
	cmake --build build-bench --target qosa-bench -j $(JOBS)
	./build-bench/bench/qosa-bench --markdown=build-bench/bench.md $(BENCH_ARGS)

# libFuzzer (clang) on the UTF-8 decoders and checks, under ASan+UBSan.
fuzz: | deps
	cmake -S . -B build-fuzz $(GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
	      -DQOSA_BUILD_FUZZ=ON -DQOSA_BUILD_TESTS=OFF -DQOSA_BUILD_EXAMPLES=OFF
	cmake --build build-fuzz --target fuzz_utf8 -j $(JOBS)
	mkdir -p build-fuzz/corpus/utf8
	./build-fuzz/fuzz/fuzz_utf8 -max_total_time=$(FUZZ_SECONDS) -max_len=4096 build-fuzz/corpus/utf8

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
	rm -rf build build-asan build-tsan build-bench build-fuzz build-arm64
