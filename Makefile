# One-command entry points; see README.md.
#   make test   install what is missing, build, run the suite: plain, then
#               AddressSanitizer+UBSan, a short fuzzing run of the debug shell's
#               parser and request handler, then the ThreadSanitizer set
#   make demo   install, build and run the daemon on a simulated device and cloud
#   make build  plain build and its install tree (build/stage/usr)
#   make bench  benchmarks (build-bench/), figures in bench/README.md
#   make fuzz   every fuzz target for FUZZ_SECONDS each (FUZZ_TARGETS picks some)
#   make soak   the daemon under traffic for SOAK_SECONDS (1200), memory checked
#   make cross-test  cross-build for CROSS_ARCHS (every device target by default) and run the
#               tests under qemu-user; make test runs it for TEST_CROSS_ARCHS
#   make ipk ARCH=<target>  OpenWrt 24.10 packages (.ipk, for opkg) of the device build in
#               build-ipk/; make test packs and checks them for TEST_IPK_ARCHS (scripts/ipk-test)
#   make apk ARCH=<target> [APK=/path/to/apk]  OpenWrt 25.12 packages (.apk), written by
#               apk-tools 3's apk mkpkg, in build-apk/; make test checks what is ours in them
#               for TEST_APK_ARCHS, and packs them when an apk program is there (scripts/apk-test)
JOBS ?= $(shell nproc)
CMAKE_GEN := $(shell command -v ninja >/dev/null 2>&1 && echo "-G Ninja")
CTEST := ctest --output-on-failure -j$(JOBS)

FUZZ_SECONDS ?= 20

# Device targets (scripts/cross-arch.sh): OpenWrt's MIPS targets in both byte orders (musl,
# soft-float) and the glibc big-endian 64-bit target are part of every test run; make
# cross-test takes them all. Packages are OpenWrt's, for the musl targets.
CROSS_ARCHS ?= mips_24kc mipsel_24kc aarch64_cortex-a53 arm_cortex-a7_neon-vfpv4 s390x
TEST_CROSS_ARCHS ?= mips_24kc mipsel_24kc s390x
IPK_ARCHS := mips_24kc mipsel_24kc aarch64_cortex-a53 arm_cortex-a7_neon-vfpv4
TEST_IPK_ARCHS ?= mips_24kc mipsel_24kc
TEST_APK_ARCHS ?= mips_24kc

.PHONY: cross-test test-cross ipk test-ipk apk test-apk all deps build build-asan build-tsan test test-plain test-asan test-tsan fuzz-short fuzz soak demo bench clean

all: build

deps:
	@scripts/install-deps

build/build.ninja build/Makefile:
	cmake -S . -B build $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo

build: deps build/build.ninja
	cmake --build build -j$(JOBS)
	cmake --install build --prefix build/stage/usr >/dev/null

build-asan: deps
	cmake -S . -B build-asan $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=Debug -DNMS_SANITIZE=asan
	cmake --build build-asan -j$(JOBS)

build-tsan: deps
	cmake -S . -B build-tsan $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=Debug -DNMS_SANITIZE=tsan
	cmake --build build-tsan -j$(JOBS)

test-plain: build
	cd build && $(CTEST)

test-asan: build-asan
	cd build-asan && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
	  UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 $(CTEST)

test-tsan: build-tsan
	cd build-tsan && TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 $(CTEST) -L tsan

fuzz-short: deps
	scripts/fuzz-short $(FUZZ_SECONDS)

# As long as asked: make fuzz FUZZ_SECONDS=300 [FUZZ_TARGETS="event_frame_fuzz ..."]
fuzz: deps
	scripts/fuzz-short $(FUZZ_SECONDS) $(FUZZ_TARGETS)

test: test-plain test-asan fuzz-short test-tsan test-cross test-ipk test-apk

cross-test:
	scripts/cross-test $(CROSS_ARCHS)

test-cross:
	scripts/cross-test $(TEST_CROSS_ARCHS)

ipk:
	@[ -n "$(ARCH)" ] || { echo "make ipk ARCH=<target>: a target is one of $(IPK_ARCHS)" >&2; exit 2; }
	scripts/install-deps --cross $(ARCH)
	scripts/ipk $(ARCH)

test-ipk:
	scripts/install-deps --cross $(TEST_IPK_ARCHS)
	scripts/ipk-test $(TEST_IPK_ARCHS)

# apk-tools 3 is packaged neither by Debian 12 nor on npm: APK= names one (a 25.12 SDK has
# staging_dir/host/bin/apk), or apk on PATH. Without it make apk stops at once, and make test
# checks everything but the packing and says "skipped" for that.
apk:
	@[ -n "$(ARCH)" ] || { echo "make apk ARCH=<target>: a target is one of $(IPK_ARCHS)" >&2; exit 2; }
	@APK="$(APK)" scripts/apk --check-tool
	scripts/install-deps --cross $(ARCH)
	APK="$(APK)" scripts/apk $(ARCH)

test-apk:
	scripts/install-deps --cross $(TEST_APK_ARCHS)
	APK="$(APK)" scripts/apk-test $(TEST_APK_ARCHS)

# The demo needs no tests: its own build folder, configured without them.
demo: deps
	cmake -S . -B build-demo $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DNMS_BUILD_TESTS=OFF
	cmake --build build-demo -j$(JOBS)
	cmake --install build-demo --prefix build-demo/stage/usr >/dev/null
	scripts/demo

# A long run under traffic that checks the daemon's memory stays flat: make soak SOAK_SECONDS=N
SOAK_SECONDS ?= 1200
soak: build
	NMS_SOAK_COMPRESSED=$(SOAK_COMPRESSED) scripts/soak $(SOAK_SECONDS)

bench:
	@scripts/install-deps --bench
	cmake -S . -B build-bench $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=Release -DNMS_BUILD_BENCH=ON
	cmake --build build-bench -j$(JOBS)
	cmake --install build-bench --prefix build-bench/stage/usr >/dev/null
	scripts/bench build-bench

clean:
	rm -rf build build-asan build-tsan build-bench build-fuzz build-cross build-ipk build-apk build-demo
