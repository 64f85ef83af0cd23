# Entry points. Every target first installs missing Debian packages through
# scripts/install-deps.sh, then configures and builds what it needs.
JOBS ?= $(shell nproc)
FUZZ_SECONDS ?= 60
CMAKE_BUILD = cmake --build --preset

.PHONY: all deps build demo demo-postgresql test test-default test-asan test-tsan bench bench-instructions fuzz format install clean

all: build

deps:
	@bash scripts/install-deps.sh

build: deps
	cmake --preset default >/dev/null
	$(CMAKE_BUILD) default -j $(JOBS)

demo: deps
	cmake --preset default >/dev/null
	$(CMAKE_BUILD) default -j $(JOBS) --target dataAccessDemo
	@bash examples/run-demo.sh build/default

# The same demo on a throwaway PostgreSQL cluster (examples/run-demo-postgresql.sh).
demo-postgresql: deps
	cmake --preset default >/dev/null
	$(CMAKE_BUILD) default -j $(JOBS) --target dataAccessDemo da_pg_cluster
	@bash examples/run-demo-postgresql.sh build/default

test: test-default test-asan test-tsan
	@echo "make test: all suites passed (default, asan+ubsan, tsan)"

test-default: build
	ctest --preset default

test-asan: deps
	cmake --preset asan >/dev/null
	$(CMAKE_BUILD) asan -j $(JOBS)
	ctest --preset asan

test-tsan: deps
	cmake --preset tsan >/dev/null
	$(CMAKE_BUILD) tsan -j $(JOBS)
	ctest --preset tsan --no-tests=ignore

bench: build
	@bash bench/run.sh build/default

bench-instructions: build
	@bash bench/run-instructions.sh build/default

fuzz: deps
	cmake --preset fuzz >/dev/null
	$(CMAKE_BUILD) fuzz -j $(JOBS)
	@bash fuzz/run.sh build/fuzz $(FUZZ_SECONDS)

install: build
	cmake --install build/default --prefix $(or $(PREFIX),/usr/local)

format:
	@git ls-files '*.cpp' '*.h' '*.c' | xargs clang-format -i

clean:
	rm -rf build
