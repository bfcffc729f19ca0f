# SPDX-License-Identifier: Apache-2.0
# The commands that people type; CMake presets do the work. `make play` and `make test` are the two
# that a newcomer needs: both install what is missing and say so, as do the others.
#
#   make play [FILE=film.mkv] [ARGS='--rate 59.94']   play on the simulated TV
#   make test                                         run the tests
#   make check                                        sanitizers, formatting, clang-tidy, licence lines
#   make bench                                        benchmarks of the per-frame paths
#   make aarch64                                      the tests on AArch64, under an emulator
#   make libcxx                                       the tests with the device's C++ library, by clang
#   make soong                                        Android.bp against what CMake builds
#   make abi                                          the binary interface against the accepted one
#   make abi-accept REASON='why'                      accept the present one, in a commit
#   make package                                      Debian packages, checked, in build/packages

JOBS ?= $(shell nproc)
ARGS ?=
TEST_ARGS ?=

.PHONY: all deps build play test check licences format-check tidy sanitize-asan sanitize-tsan \
    aarch64 build-aarch64 libcxx soong abi abi-reason abi-accept package bench format clean

all: build

deps:
	@scripts/install-deps.sh

build: deps
	cmake --preset release
	cmake --build --preset release -j $(JOBS)

# Make hands FILE on in the environment, where no letter of a name means anything to the shell.
play: build
	@[ -n "$$FILE" ] || FILE=$$(scripts/fetch-clip.sh) || exit; \
	build/release/bin/korvane-tv play "$$FILE" $(ARGS)

test: build
	ctest --preset release -j $(JOBS) $(TEST_ARGS)

check: licences format-check tidy sanitize-asan sanitize-tsan

sanitize-asan sanitize-tsan: sanitize-%: deps
	cmake --preset $*
	cmake --build --preset $* -j $(JOBS)
	ctest --preset $* -j $(JOBS) $(TEST_ARGS)

licences:
	scripts/check-licences.sh

tidy: build
	scripts/clang-tidy.sh build/release $(JOBS)

format:
	git ls-files '*.h' '*.cpp' | xargs clang-format -i

format-check: deps
	git ls-files '*.h' '*.cpp' | xargs clang-format --dry-run --Werror

# The tests of Android.bp are there when their tools are; here they must be.
soong: deps
	@scripts/install-deps.sh soong
	cmake --preset release
	cmake --build --preset release -j $(JOBS) --target korvane-tv
	ctest --preset release -R '^soong_' --no-tests=error $(TEST_ARGS)

libcxx: build
	@scripts/install-deps.sh libcxx
	cmake --preset libcxx
	cmake --build --preset libcxx -j $(JOBS)
	ctest --preset libcxx -j $(JOBS) $(TEST_ARGS)

build-aarch64: deps
	@scripts/install-deps.sh aarch64
	scripts/aarch64-sysroot.sh
	cmake --preset aarch64
	cmake --build --preset aarch64 -j $(JOBS)

aarch64: build build-aarch64
	ctest --preset aarch64 -j $(JOBS) $(TEST_ARGS)

# Both need what both processors' libraries are built from, and run none of it.
abi: build build-aarch64
	@scripts/install-deps.sh abi
	@scripts/abi.sh check

abi-reason:
	@scripts/abi.sh reason

abi-accept: abi-reason build build-aarch64
	@scripts/install-deps.sh abi
	@scripts/abi.sh accept

package: build
	@scripts/install-deps.sh package
	@packaging/package.sh build/release build/packages

bench: build
	@for program in build/release/bin/bench_*; do echo "== $${program##*/}"; "$$program" $(ARGS) || exit; done

clean:
	rm -rf build
