# korvex: the two everyday commands are `make demo` and `make test`.
PREFIX ?= /usr/local
PACKAGES := cmake ninja-build g++ clang libclang-rt-dev googletest libgtest-dev libbenchmark-dev libssl-dev \
            nlohmann-json3-dev pkg-config
JOBS ?= 2
FUZZ_SECONDS ?= 20
BENCH_SECONDS ?= 0.2

.PHONY: all deps build test test-asan test-tsan demo install fuzz bench clean

all: build

# Installs what is missing on a fresh Debian machine (as root, or through sudo).
deps:
	@missing=""; for p in $(PACKAGES); do dpkg -s $$p >/dev/null 2>&1 || missing="$$missing $$p"; done; \
	if [ -n "$$missing" ]; then \
	  echo "installing:$$missing"; \
	  SUDO=""; [ "$$(id -u)" -ne 0 ] && SUDO=sudo; \
	  $$SUDO apt-get update -qq && DEBIAN_FRONTEND=noninteractive $$SUDO apt-get install -y -qq $$missing; \
	fi

build: deps
	cmake --preset default
	cmake --build --preset default -j $(JOBS)

test: build
	ctest --preset default

test-asan: deps
	cmake --preset asan
	cmake --build --preset asan -j $(JOBS)
	ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  ctest --preset asan

test-tsan: deps
	cmake --preset tsan
	cmake --build --preset tsan -j $(JOBS)
	TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 ctest --preset tsan

# A device session over loopback, then a sample stream made, encrypted and inspected with the tools.
demo: build
	@echo "== device session"
	./build/default/examples/korvex_demo
	@echo "== sample stream"
	tools/demo_stream.sh build/default

install: build
	cmake --install build/default --prefix $(PREFIX)

# Each harness runs FUZZ_SECONDS on its seed corpus (fuzz/corpus/<name>, when present).
fuzz: deps
	cmake --preset fuzz
	cmake --build --preset fuzz -j $(JOBS)
	@set -e; for h in build/fuzz/fuzz/fuzz_*; do \
	  [ -x "$$h" ] || continue; name=$$(basename $$h); corpus=fuzz/corpus/$${name#fuzz_}; \
	  work=build/fuzz/corpus/$${name#fuzz_}; mkdir -p $$work; \
	  [ -d $$corpus ] && seeds=$$corpus || seeds=""; \
	  echo "== $$name ($(FUZZ_SECONDS)s)"; \
	  $$h -max_total_time=$(FUZZ_SECONDS) -print_final_stats=1 -artifact_prefix=build/fuzz/ $$work $$seeds 2>&1 | tail -n 12; \
	done

# Every benchmark beside its peer, then the table of ratios against the targets.
bench: deps
	cmake --preset bench
	cmake --build --preset bench -j $(JOBS)
	python3 bench/ratios.py build/bench/bench --min-time $(BENCH_SECONDS)

clean:
	rm -rf build
