# korvex: the two everyday commands are `make demo` and `make test`.
PREFIX ?= /usr/local
PACKAGES := cmake ninja-build g++ clang libclang-rt-dev googletest libgtest-dev libbenchmark-dev libssl-dev \
            nlohmann-json3-dev pkg-config
JOBS ?= 2
FUZZ_SECONDS ?= 20
BENCH_SECONDS ?= 0.2

.PHONY: all deps build test test-asan test-tsan demo install fuzz soak test-valgrind bench clean

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
# Only what the demo runs is built (the library, the demo program, the two tools); `make test` builds
# the rest in the same build tree.
DEMO_TARGETS := korvex_demo korvex-mkframe korvex-dump
demo: deps
	cmake --preset default
	cmake --build --preset default -j $(JOBS) --target $(DEMO_TARGETS)
	@echo "== device session"
	./build/default/examples/korvex_demo
	@echo "== sample stream"
	tools/demo_stream.sh build/default

install: build
	cmake --install build/default --prefix $(PREFIX)

# Each harness runs FUZZ_SECONDS (or FUZZ_RUNS executions, when given) on a work copy of its seed
# corpus (fuzz/corpus/<name>), with leak detection; a crash, leak or timeout stops the target and
# leaves its input in build/fuzz/.
FUZZ_RUNS ?= -1
fuzz: deps
	cmake --preset fuzz
	cmake --build --preset fuzz -j $(JOBS)
	@set -e; for h in build/fuzz/fuzz/fuzz_*; do \
	  [ -x "$$h" ] || continue; name=$$(basename $$h); corpus=fuzz/corpus/$${name#fuzz_}; \
	  work=build/fuzz/corpus/$${name#fuzz_}; mkdir -p $$work; \
	  [ -d $$corpus ] && seeds=$$corpus || seeds=""; \
	  echo "== $$name ($(FUZZ_SECONDS)s)"; \
	  rc=0; ASAN_OPTIONS=detect_leaks=1 $$h -max_total_time=$(FUZZ_SECONDS) -runs=$(FUZZ_RUNS) -timeout=25 \
	    -print_final_stats=1 -artifact_prefix=build/fuzz/ $$work $$seeds > build/fuzz/$$name.log 2>&1 || rc=$$?; \
	  grep -E '^#[0-9]+[[:space:]]+DONE|stat::number_of_executed_units|ERROR|SUMMARY' build/fuzz/$$name.log || true; \
	  if [ $$rc -ne 0 ]; then tail -n 40 build/fuzz/$$name.log; exit $$rc; fi; \
	done

# Every unit test under valgrind memcheck, one process per test: no error, no definite leak.
test-valgrind: build
	tests/valgrind.sh build/default $(JOBS)

# Load and soak over loopback (a few minutes); not part of `make test`.
soak: build
	./build/default/tests/korvex_soak

# Every benchmark beside its peer, then the table of ratios against the targets.
bench: deps
	cmake --preset bench
	cmake --build --preset bench -j $(JOBS)
	python3 bench/ratios.py build/bench/bench --min-time $(BENCH_SECONDS)

clean:
	rm -rf build
