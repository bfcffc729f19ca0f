# SPDX-License-Identifier: Apache-2.0
# The commands that people type; CMake presets do the work. `make play` and `make test` are the two
# that a newcomer needs: both install what is missing and say so.
#
#   make play [FILE=film.mkv] [ARGS='--rate 59.94']   play on the simulated TV
#   make test                                         run the tests
#   make check                                        sanitizers, formatting, clang-tidy, licence lines
#   make bench                                        benchmarks of the per-frame paths

JOBS ?= $(shell nproc)
ARGS ?=
TEST_ARGS ?=

.PHONY: all deps build play test check sanitize-asan sanitize-tsan tidy licences format format-check bench clean

all: build

deps:
	@scripts/install-deps.sh

build: deps
	cmake --preset release
	cmake --build --preset release -j $(JOBS)

play: build
	@FILE='$(FILE)'; [ -n "$$FILE" ] || FILE=$$(scripts/fetch-clip.sh) || exit; \
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

bench: build
	@for program in build/release/bin/bench_*; do echo "== $${program##*/}"; "$$program" $(ARGS) || exit; done

clean:
	rm -rf build
