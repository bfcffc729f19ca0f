# SPDX-License-Identifier: Apache-2.0
# The commands that people type; CMake presets do the work. A newcomer needs two of them, `make play`
# and `make test`. Each command first installs the packages that it needs, and says so.
#
#   make play [FILE=film.mkv] [ARGS='--rate 59.94']   play on the simulated TV
#   make test                                         run the tests
#   make check                                        rules of the tree, formatting, clang-tidy, sanitizers
#   make bench                                        benchmarks of the per-frame paths
#   make window                                       korvane-tv with --window, and its tests
#   make coverage                                     what the tests reach in the library, as a page
#   make aarch64                                      the tests on AArch64, under an emulator
#   make libcxx                                       the tests with the device's C++ library, by clang
#   make explore [TIME=10m] [ARGS='--jobs 2']         the library under many schedules of its threads
#   make planted                                      the same on copies with planted faults
#   make soong                                        Android.bp against what CMake builds
#   make page                                         report pages in a headless browser
#   make abi                                          the binary interface against the accepted one
#   make abi-accept REASON='why'                      accept the present one, in a commit
#   make fuzz [TIME=10m]                              random players and damaged inputs, by libFuzzer
#   make package                                      Debian packages, checked, in build/packages

JOBS ?= $(shell nproc)
ARGS ?=
TIME ?= 10m
TEST_ARGS ?=
install := @scripts/install-deps.sh
programs := korvane-tv korvane-tv-testbench

.PHONY: all build configure play build-tests test check licences rooms format-check tidy sanitize-asan \
    sanitize-tsan aarch64 build-aarch64 libcxx soong page abi abi-reason abi-accept package bench format \
    clean window coverage fuzz explore planted
# Each command uses all processors by itself.
.NOTPARALLEL:

all: build

# korvane-tv with all its commands. `make build-tests` adds the tests in the same folder, which keeps
# its configuration from then on.
build: configure
	cmake --build --preset programs -j $(JOBS)

configure:
	$(install)
	@[ -e build/release/build.ninja ] || cmake --preset play

# Builds what plays a film, and fetches the clip meanwhile. Make passes FILE in the environment, so that
# the shell does not interpret any character of it.
play: configure
	@mkdir -p build; fetch=; \
	[ -n "$$FILE" ] || { scripts/fetch-clip.sh >build/clip & fetch=$$!; }; \
	cmake --build --preset play -j $(JOBS) && \
	{ [ -z "$$fetch" ] || { wait $$fetch && FILE=$$(cat build/clip); }; } && \
	build/release/bin/korvane-tv play "$$FILE" $(ARGS)

build-tests:
	$(install) test
	cmake --preset release
	cmake --build --preset release -j $(JOBS)

test: build-tests
	ctest --preset release -j $(JOBS) $(TEST_ARGS)

check: licences rooms format-check tidy sanitize-asan sanitize-tsan

sanitize-asan sanitize-tsan: sanitize-%:
	$(install) test
	cmake --preset $*
	cmake --build --preset $* -j $(JOBS)
	ctest --preset $* -j $(JOBS) $(TEST_ARGS)

licences:
	scripts/check-licences.sh

rooms:
	scripts/check-rooms.sh

# clang-tidy reads how each file is compiled; nothing has to be built for it. ANALYSED='renderer|frac' has the
# analyzer, which takes longest, look at those folders only.
tidy:
	$(install) test check
	cmake --preset release
	cmake --preset release -B build/tidy -DCMAKE_UNITY_BUILD=OFF
	scripts/clang-tidy.sh build/release build/tidy $(JOBS) '$(ANALYSED)'

format:
	$(install) check
	git ls-files '*.h' '*.cpp' | xargs clang-format -i

format-check:
	$(install) check
	git ls-files '*.h' '*.cpp' | xargs clang-format --dry-run --Werror

# `make test` runs these tests only where their tools are installed; this command installs them.
soong:
	$(install) test soong
	cmake --preset release
	cmake --build --preset release -j $(JOBS) --target $(programs)
	ctest --preset release -R '^soong_' --no-tests=error $(TEST_ARGS)

# As soong: its browser is installed by this command alone.
page:
	$(install) test page
	scripts/fetch-uplot.sh
	cmake --preset release
	cmake --build --preset release -j $(JOBS) --target $(programs)
	ctest --preset release -R '^player_(clips|page_test)$$' --no-tests=error $(TEST_ARGS)

# A build that was made before the headers were there finds them now.
window: build
	$(install) test window
	cmake --preset release
	cmake --build --preset release -j $(JOBS) --target $(programs)
	ctest --preset release -R '^player_watch_test$$' --no-tests=error $(TEST_ARGS)

# The tests and scenarios of the release build on a copy of the library that counts what runs.
coverage: build-tests
	$(install) coverage
	cmake --build --preset release -j $(JOBS) --target korvane_coverage
	@scripts/coverage.py build/release build/coverage $(JOBS)

fuzz:
	$(install) fuzz
	@for preset in fuzz fuzz-asan; do \
	    cmake --preset $$preset && cmake --build --preset $$preset -j $(JOBS) || exit; done
	@scripts/fuzz.sh $(TIME) $(JOBS)

# Programs and threads hard on the library first, then every scenario's first frames.
explore:
	$(install) test
	cmake --preset release
	cmake --build --preset release -j $(JOBS) --target $(programs) explore
	build/release/bin/korvane-tv explore --for $(TIME) --jobs $(JOBS) $(ARGS)

planted:
	$(install) test
	cmake --preset release
	cmake --build --preset release -j $(JOBS) --target $(programs) explore planted
	tests/explore/planted.sh build/release/bin/korvane-tv build/release/lib/planted tests/explore/planted

libcxx: build
	$(install) test libcxx
	cmake --preset libcxx
	cmake --build --preset libcxx -j $(JOBS)
	ctest --preset libcxx -j $(JOBS) $(TEST_ARGS)

build-aarch64:
	$(install) test aarch64
	scripts/aarch64-sysroot.sh
	cmake --preset aarch64
	cmake --build --preset aarch64 -j $(JOBS)

aarch64: build build-aarch64
	ctest --preset aarch64 -j $(JOBS) $(TEST_ARGS)

# Both read the libraries of both processors and run none of them.
abi: build-tests build-aarch64
	$(install) abi
	@scripts/abi.sh check

abi-reason:
	@scripts/abi.sh reason

abi-accept: abi-reason build-tests build-aarch64
	$(install) abi
	@scripts/abi.sh accept

package: build
	$(install) package
	@packaging/package.sh build/release build/packages

bench:
	$(install) test
	cmake --preset release
	cmake --build --preset release -j $(JOBS) --target benchmarks
	@for program in build/release/bin/bench_*; do echo "== $${program##*/}"; "$$program" $(ARGS) || exit; done

clean:
	rm -rf build
