# One command a need. Every target works from a fresh clone: what is missing is installed first.
# From another folder: make -C PATH-OF-THE-CLONE TARGET.

ROOT := $(dir $(abspath $(lastword $(MAKEFILE_LIST))))
JOBS ?= $(shell nproc)
export CTEST_PARALLEL_LEVEL ?= $(JOBS)

PREFIX ?= /usr/local

.PHONY: build run install package package-check test unit servers desktop pictures asan tsan fuzz bench lint format bootstrap clean

## The two programs, optimised: build/bin/korvane and build/bin/korvanectl
build:
	@$(ROOT)scripts/bootstrap build
	@cd $(ROOT) && cmake --preset release >/dev/null && cmake --build --preset release -j $(JOBS) --target korvane korvanectl
	@mkdir -p $(ROOT)build/bin && ln -sf ../release/bin/korvane ../release/bin/korvanectl $(ROOT)build/bin/

## Starts Korvane and shows the palette; without a display, on a private one (QUERY=text types it)
run: build
	@$(ROOT)scripts/bootstrap run
	@$(ROOT)scripts/run $(ROOT)build/bin

## Installs the programs below PREFIX (/usr/local); DESTDIR is put before all paths
install: build
	@cd $(ROOT) && DESTDIR="$(DESTDIR)" cmake --install build/release --prefix "$(PREFIX)" >/dev/null

## A Debian package and a tarball of the sources: build/package
package: build
	@$(ROOT)scripts/bootstrap package
	@$(ROOT)scripts/package

## Installs the package into a clean Debian, uses it there, removes it and looks for what it leaves
package-check: package
	@$(ROOT)scripts/package-check

## Everything that the suite holds
test:
	@$(ROOT)scripts/bootstrap test
	@cd $(ROOT) && cmake --preset release >/dev/null && cmake --build --preset release -j $(JOBS)
	@mkdir -p $(ROOT)build/bin && ln -sf ../release/bin/korvane ../release/bin/korvanectl $(ROOT)build/bin/
	@cd $(ROOT) && ctest --preset release

## The inner loop: a debug build and all tests that need no screen
unit:
	@$(ROOT)scripts/bootstrap test
	@cd $(ROOT) && cmake --preset dev >/dev/null && cmake --build --preset dev -j $(JOBS) --target headless_tests && ctest --preset dev -LE 'desktop|slow'

## Works with MCP servers that others have written, installed from npm into build/servers
servers:
	@$(ROOT)scripts/bootstrap test servers
	@cd $(ROOT) && cmake --preset release >/dev/null && cmake --build --preset release -j $(JOBS) --target reference_server_tests && scripts/servers

## The real program and the real adapters under a private X server
desktop:
	@$(ROOT)scripts/bootstrap test
	@cd $(ROOT) && cmake --preset release >/dev/null && cmake --build --preset release -j $(JOBS) && ctest --preset release -L desktop

## Every state of the windows in both languages, light and dark, at two scales: build/pictures
pictures:
	@$(ROOT)scripts/bootstrap test
	@cd $(ROOT) && scripts/pictures

## All tests without a screen under AddressSanitizer and UndefinedBehaviorSanitizer
asan:
	@$(ROOT)scripts/bootstrap test
	@cd $(ROOT) && cmake --preset asan >/dev/null && cmake --build --preset asan -j $(JOBS) --target headless_tests && ctest --preset asan

## Those that use real threads under ThreadSanitizer
tsan:
	@$(ROOT)scripts/bootstrap test
	@cd $(ROOT) && cmake --preset tsan >/dev/null && cmake --build --preset tsan -j $(JOBS) --target concurrent_tests && ctest --preset tsan

## Hunts with every fuzzer for SECONDS_EACH seconds
fuzz:
	@$(ROOT)scripts/bootstrap test
	@cd $(ROOT) && cmake --preset fuzz >/dev/null && cmake --build --preset fuzz -j $(JOBS) && scripts/fuzz

## Prints the tables of docs/performance.md
bench:
	@$(ROOT)scripts/bootstrap test
	@cd $(ROOT) && cmake --preset release >/dev/null && cmake --build --preset release -j $(JOBS) && scripts/bench

lint:
	@$(ROOT)scripts/bootstrap test
	@cd $(ROOT) && cmake --preset dev >/dev/null && scripts/lint --tidy

format:
	@cd $(ROOT) && scripts/lint --format

bootstrap:
	@$(ROOT)scripts/bootstrap build run test package

clean:
	@rm -rf $(ROOT)build
