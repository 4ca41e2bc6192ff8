# korvex: the two everyday commands are `make demo` and `make test`.
PREFIX ?= /usr/local
PACKAGES := cmake ninja-build ccache g++ clang libclang-rt-dev googletest libgtest-dev libbenchmark-dev libssl-dev \
            nlohmann-json3-dev pkg-config tshark libpcap-dev libuv1-dev \
            ffmpeg libavcodec-dev libavformat-dev libavfilter-dev libswscale-dev libavutil-dev fonts-dejavu-core \
            python3-dev python3-pybind11 python3-pytest python3-hypothesis \
            doxygen graphviz
# The tools' manual pages (help2man), korvex-view's font lookup (fontconfig) and a font with Chinese glyphs.
PACKAGES += help2man libfontconfig-dev fonts-wqy-zenhei
JOBS ?= 2
FUZZ_SECONDS ?= 20
BENCH_SECONDS ?= 0.2

.PHONY: all deps build test test-asan test-tsan demo install python python-asan fuzz soak fleet fleet-video test-valgrind bench docs clean
.PHONY: chaos chaos-asan chaos-tsan

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
# Only what the demo runs is built (the library, the demo program, the three tools); `make test` builds
# the rest in the same build tree.
DEMO_TARGETS := korvex_demo korvex-mkframe korvex-dump korvex-view
demo: deps
	cmake --preset default
	cmake --build --preset default -j $(JOBS) --target $(DEMO_TARGETS)
	@echo "== device session"
	./build/default/examples/korvex_demo
	@echo "== sample stream"
	tools/demo_stream.sh build/default

# Also installs the Python module for /usr/bin/python3, under $(PREFIX)/lib/python3.X/dist-packages.
install: build
	cmake --preset default -DKORVEX_PYTHON=ON
	cmake --build --preset default -j $(JOBS)
	cmake --install build/default --prefix $(PREFIX)

# The Python module korvex (for /usr/bin/python3) and its pytest suite; from here on the default build
# keeps building it.
python: deps
	cmake --preset default -DKORVEX_PYTHON=ON
	cmake --build --preset default -j $(JOBS)
	ctest --preset default --no-tests=error -R '^Python\.'

# The same tests against a module built with ASan + UBSan (build/asan-python, GCC). The interpreter is
# not instrumented, so it preloads the sanitizer runtime, and libstdc++, whose exception calls the
# runtime intercepts. Leak detection is off (the interpreter keeps its allocations to the end); the
# tests watch the process's memory themselves.
python-asan: deps
	cmake --preset asan -B build/asan-python -DKORVEX_TOOLS=ON -DKORVEX_PYTHON=ON
	cmake --build build/asan-python -j $(JOBS) --target korvex_python korvex-dump korvex-mkframe korvex-export
	cd build/asan-python && env LD_PRELOAD="$$(gcc -print-file-name=libasan.so) $$(g++ -print-file-name=libstdc++.so)" \
	  ASAN_OPTIONS=detect_leaks=0:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  PYTHONPATH=python KORVEX_DUMP=tools/korvex-dump KORVEX_MKFRAME=tools/korvex-mkframe KORVEX_EXPORT=tools/korvex-export \
	  /usr/bin/python3 -m pytest -q -p no:cacheprovider ../../python/tests

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
	./build/default/soak/korvex_soak

# Fleet soak and benchmark over loopback (about a minute and a half): each shape of korvex_fleet,
# and beside it the same shape of the libuv anchor (UVFLEET_SRC, built here with libuv1-dev) when
# its source is at hand. Fails when a korvex check fails.
UVFLEET_SRC ?= ../shared/anchors/uvfleet.c
fleet: build
	@t0=$$(date +%s); rc=0; uv=""; \
	if [ -f "$(UVFLEET_SRC)" ]; then \
	  gcc -O2 -std=gnu11 -pthread "$(UVFLEET_SRC)" -luv -o build/default/uvfleet && uv=build/default/uvfleet; \
	else echo "libuv anchor not run: $(UVFLEET_SRC) not found (UVFLEET_SRC=path)"; fi; \
	for s in scale idle fair overflow; do \
	  ./build/default/soak/korvex_fleet $$s || rc=1; \
	  case $$s in scale) a="scale 2048 10000";; idle) a="idle 2048 1000";; fair) a="fair 2048";; *) a="";; esac; \
	  if [ -n "$$uv" ] && [ -n "$$a" ]; then printf 'libuv: '; $$uv $$a | grep '^RESULT'; fi; \
	done; \
	echo "fleet: $$(( $$(date +%s) - t0 ))s, korvex checks $$( [ $$rc -eq 0 ] && echo passed || echo FAILED )"; exit $$rc

# Supervised-session shapes of the fleet (about a minute and a half; each runs in network namespaces
# of its own, so it needs root): vanish, flap, idle-supervised. Fails when a check fails.
.PHONY: fleet-supervise
fleet: fleet-supervise
fleet-supervise: build
	@rc=0; for s in vanish flap idle-supervised; do ./build/default/soak/korvex_fleet $$s || rc=1; done; exit $$rc

# Video-server shapes of the fleet (cameras, control, send; about six minutes): korvex beside the libuv
# anchor of the same shapes (UVVIDEO_SRC, built here with libuv1-dev), interleaved, 3 rounds, medians
# and ratios. Without the anchor's source korvex runs alone. Fails when a korvex packet check fails.
UVVIDEO_SRC ?= ../shared/anchors/video/uvvideo.c
FLEET_VIDEO_ROUNDS ?= 3
FLEET_VIDEO_SECONDS ?= 10
fleet: fleet-video
fleet-video: build
	@uv=""; if [ -f "$(UVVIDEO_SRC)" ]; then \
	  gcc -O2 -std=gnu11 -pthread "$(UVVIDEO_SRC)" -luv -lm -o build/default/uvvideo && uv=build/default/uvvideo; \
	else echo "libuv video anchor not run: $(UVVIDEO_SRC) not found (UVVIDEO_SRC=path)"; fi; \
	python3 soak/fleet_video.py build/default/soak/korvex_fleet $$uv --rounds $(FLEET_VIDEO_ROUNDS) \
	  --seconds $(FLEET_VIDEO_SECONDS)

# Chaos soak (soak/chaos.cpp): 1000 links under churn of their peers, 8 sender threads, reattaches,
# destroys and timers for CHAOS_SECONDS (600); every byte checked, descriptors, threads and heap back
# at the end. chaos-asan and chaos-tsan run it built with ASan + UBSan and with TSan, at the same
# scale (CHAOS_LINKS in the environment lowers it). Fails when a check fails.
CHAOS_SECONDS ?= 600
chaos: deps
	cmake --preset default
	cmake --build --preset default -j $(JOBS) --target korvex_chaos
	CHAOS_SECONDS=$(CHAOS_SECONDS) ./build/default/soak/korvex_chaos

chaos-asan: deps
	cmake --preset asan
	cmake --build --preset asan -j $(JOBS) --target korvex_chaos
	ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  CHAOS_SECONDS=$(CHAOS_SECONDS) ./build/asan/soak/korvex_chaos

chaos-tsan: deps
	cmake --preset tsan
	cmake --build --preset tsan -j $(JOBS) --target korvex_chaos
	TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 CHAOS_SECONDS=$(CHAOS_SECONDS) ./build/tsan/soak/korvex_chaos

# Every benchmark beside its peer, then the table of ratios against the targets.
bench: deps
	cmake --preset bench
	cmake --build --preset bench -j $(JOBS)
	python3 bench/ratios.py build/bench/bench --min-time $(BENCH_SECONDS)

# The API reference (Doxygen): build/docs/html/index.html; any Doxygen warning fails the target.
docs: deps
	cmake --preset default
	cmake --build --preset default -j $(JOBS) --target docs
	@echo "API reference: build/docs/html/index.html"

clean:
	rm -rf build

# --- allocation-failure sweep ---
# Every stage of the library run with its 1st, 2nd, ... allocation failing, under ASan + UBSan:
# no crash, no leak, no false success. Prints the allocation points of each stage.
.PHONY: alloc-sweep
alloc-sweep: deps
	cmake --preset asan
	cmake --build --preset asan -j $(JOBS) --target test_alloc
	ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  ctest --test-dir build/asan -R '^AllocSweep\.' --output-on-failure --timeout 180

# ---- Cross targets: the library and its unit tests built with Debian's cross compilers and run under
# qemu-user (cmake/toolchain-<target>.cmake). `make test-cross TARGET=armhf`; the last line is
# "cross: TARGET unit P/T". Only what that target needs is installed. Not built there, each with its
# reason in tests/: the tools' and the dissector's tests (host programs), the OpenSSL oracle (no
# target libcrypto), the install test (host compilers).
CROSS_TRIPLE_aarch64 := aarch64-linux-gnu
CROSS_TRIPLE_armhf := arm-linux-gnueabihf
CROSS_TRIPLE_i386 := i686-linux-gnu
CROSS_TRIPLE_s390x := s390x-linux-gnu
CROSS_JOBS ?= $(JOBS)
# What running a target's tests needs: qemu-user, except i386, whose programs an x86-64 kernel runs
# natively (with the cross C library's loader, cmake/toolchain-i386.cmake).
CROSS_RUNNER = $(if $(filter i386,$(TARGET)),,qemu-user)
# Left out under the emulator: GoogleTest's threadsafe death test re-executes the test program, and a
# foreign-architecture program only starts through binfmt_misc, which containers and CI runners may not
# have (execv gives ENOEXEC). The library's part of it runs in every native build, and i386 runs it.
CROSS_EXCLUDE = $(if $(filter i386,$(TARGET)),^$$,^TcpClientRules\.DestroyingAFreeSlotEndsTheProcess$$)
.PHONY: test-cross
test-cross:
	@[ -n "$(CROSS_TRIPLE_$(TARGET))" ] || { echo "usage: make test-cross TARGET=aarch64|armhf|i386|s390x"; exit 2; }
	@$(MAKE) --no-print-directory deps PACKAGES="cmake ninja-build ccache googletest $(CROSS_RUNNER) g++-$(CROSS_TRIPLE_$(TARGET))"
	cmake -S . -B build/cross-$(TARGET) -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-$(TARGET).cmake \
	  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKORVEX_TOOLS=OFF -DKORVEX_EXAMPLES=OFF -DKORVEX_DOCS=OFF
	cmake --build build/cross-$(TARGET) -j $(JOBS)
	@rc=0; ctest --test-dir build/cross-$(TARGET) -j $(CROSS_JOBS) --output-on-failure -E '$(CROSS_EXCLUDE)' \
	  > build/cross-$(TARGET)/ctest.log 2>&1 || rc=$$?; \
	grep -E 'tests passed|\*\*\*|Failed|Timeout|Not Run' build/cross-$(TARGET)/ctest.log || true; \
	line=$$(grep -E '[0-9]+% tests passed, [0-9]+ tests? failed out of [0-9]+' build/cross-$(TARGET)/ctest.log); \
	f=$$(echo "$$line" | sed -E 's/.* ([0-9]+) tests? failed out of ([0-9]+).*/\1/'); \
	t=$$(echo "$$line" | sed -E 's/.* failed out of ([0-9]+).*/\1/'); \
	if [ -z "$$line" ]; then tail -n 40 build/cross-$(TARGET)/ctest.log; echo "cross: $(TARGET) unit 0/0"; exit 1; fi; \
	echo "cross: $(TARGET) unit $$((t - f))/$$t"; \
	[ $$rc -eq 0 ] && [ "$$f" -eq 0 ]

# ---- The portable paths on this machine: the poll(2) event backend (the one macOS and the BSDs use) and
# the user-data analysis's byte loop (processors without SSSE3), both forced on Linux x86-64; the
# library and its unit tests (build/portable).
.PHONY: test-portable
test-portable: deps
	cmake -S . -B build/portable -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKORVEX_POLLER=poll \
	  -DKORVEX_USERDATA_SIMD=OFF -DKORVEX_TOOLS=OFF -DKORVEX_EXAMPLES=OFF -DKORVEX_DOCS=OFF
	cmake --build build/portable -j $(JOBS)
	ctest --test-dir build/portable -j $(JOBS) --output-on-failure
