# cross-arch.sh - the device architectures the tree is cross-built and tested for. Sourced by
# scripts/install-deps, scripts/cross-test, scripts/ipk and scripts/ipk-test; defines
# nms_cross_arch ARCH, which sets the names below or says what it knows and returns 1.
#
# The OpenWrt targets carry OpenWrt's names and its C library, musl (soft-float on MIPS):
# they are built with zig's clang, which carries musl, libc++ and compiler-rt for every
# target, from the npm package pinned in cmake/cross/musl/package-lock.json. s390x is a
# Debian glibc target built with Debian's cross g++: the one 64-bit big-endian target, and a
# second C library the sources must build and pass on.
#
#   CROSS_LIBC     musl or glibc
#   CROSS_QEMU     qemu-user binary that runs the target's programs on this host
#   CROSS_CPU      CMAKE_SYSTEM_PROCESSOR
#   CROSS_IPK      OpenWrt package architecture written into the .ipk
#   CROSS_DESC     word size, byte order and floating point, for summaries
#   CROSS_ARCH     the ARCH given
# musl targets:
#   CROSS_ZIG_TARGET  zig's target triple
#   CROSS_ZIG_CPU     zig's -mcpu (the CPU of OpenWrt's package architecture)
#   CROSS_QEMU_CPU    the CPU qemu emulates: one without an FPU for the soft-float targets,
#                     so a hard-float instruction that slipped in stops the test
#   CROSS_LDSO        the program interpreter OpenWrt's musl has on this target
#   CROSS_GNU_LD      GNU ld of Debian's cross binutils, for MIPS shared objects
#                     (cmake/cross/musl/gnu-ld-shared says why); empty elsewhere
# glibc targets:
#   CROSS_DEB      Debian's architecture name (sysroot packages)
#   CROSS_TRIPLET  GNU triplet of the cross toolchain (g++-<triplet> package, <triplet>-g++)
# Sysroots (the target's C library, json-c, GoogleTest and, for musl, busybox) live in
# $NMS_SYSROOTS/<arch>, by default build-cross/sysroot/<arch>.

NMS_CROSS_ALL="mips_24kc mipsel_24kc aarch64_cortex-a53 arm_cortex-a7_neon-vfpv4 s390x"
NMS_CROSS_MUSL="mips_24kc mipsel_24kc aarch64_cortex-a53 arm_cortex-a7_neon-vfpv4"

nms_cross_arch() {
    CROSS_ARCH=$1
    CROSS_IPK=$1
    CROSS_LIBC=musl
    CROSS_DEB= CROSS_TRIPLET= CROSS_ZIG_TARGET= CROSS_ZIG_CPU= CROSS_QEMU_CPU= CROSS_LDSO=
    CROSS_GNU_LD=
    case "$1" in
    mips_24kc)
        CROSS_ZIG_TARGET=mips-linux-musl; CROSS_ZIG_CPU=mips32r2+soft_float
        CROSS_QEMU=qemu-mips; CROSS_QEMU_CPU=24Kc; CROSS_CPU=mips
        CROSS_LDSO=/lib/ld-musl-mips-sf.so.1; CROSS_GNU_LD=mips-linux-gnu-ld
        CROSS_DESC="32-bit big-endian, soft-float, musl" ;;
    mipsel_24kc)
        CROSS_ZIG_TARGET=mipsel-linux-musl; CROSS_ZIG_CPU=mips32r2+soft_float
        CROSS_QEMU=qemu-mipsel; CROSS_QEMU_CPU=24Kc; CROSS_CPU=mipsel
        CROSS_LDSO=/lib/ld-musl-mipsel-sf.so.1; CROSS_GNU_LD=mips-linux-gnu-ld
        CROSS_DESC="32-bit little-endian, soft-float, musl" ;;
    aarch64_cortex-a53)
        CROSS_ZIG_TARGET=aarch64-linux-musl; CROSS_ZIG_CPU=cortex_a53
        CROSS_QEMU=qemu-aarch64; CROSS_QEMU_CPU=cortex-a53; CROSS_CPU=aarch64
        CROSS_LDSO=/lib/ld-musl-aarch64.so.1
        CROSS_DESC="64-bit little-endian, musl" ;;
    arm_cortex-a7_neon-vfpv4)
        CROSS_ZIG_TARGET=arm-linux-musleabihf; CROSS_ZIG_CPU=cortex_a7+neon+vfp4
        CROSS_QEMU=qemu-arm; CROSS_QEMU_CPU=cortex-a7; CROSS_CPU=arm
        CROSS_LDSO=/lib/ld-musl-armhf.so.1
        CROSS_DESC="32-bit little-endian, hard-float, musl" ;;
    x86_64)
        # Not a test target: musl on this host's own processor, run natively (no qemu), to
        # measure what depends on the C library alone, such as its allocator.
        CROSS_ZIG_TARGET=x86_64-linux-musl; CROSS_ZIG_CPU=x86_64
        CROSS_QEMU=qemu-x86_64; CROSS_QEMU_CPU=max; CROSS_CPU=x86_64
        CROSS_LDSO=/lib/ld-musl-x86_64.so.1
        CROSS_DESC="64-bit little-endian, musl, native on an x86-64 host" ;;
    mipsel_glibc)
        # Not a test target: little-endian MIPS with Debian's glibc and GNU's C++ runtime as a
        # shared library, the build whose size embedded teams compare (bench/README.md).
        CROSS_LIBC=glibc; CROSS_DEB=mipsel; CROSS_TRIPLET=mipsel-linux-gnu
        CROSS_QEMU=qemu-mipsel; CROSS_CPU=mipsel
        CROSS_DESC="32-bit little-endian, glibc" ;;
    s390x)
        CROSS_LIBC=glibc; CROSS_DEB=s390x; CROSS_TRIPLET=s390x-linux-gnu
        CROSS_QEMU=qemu-s390x; CROSS_CPU=s390x
        CROSS_DESC="64-bit big-endian, glibc" ;;
    *)
        echo "unknown ARCH '$1': known targets are $NMS_CROSS_ALL" >&2
        return 1 ;;
    esac
}

nms_cross_root() {
    cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd
}

nms_sysroots_dir() {
    echo "${NMS_SYSROOTS:-$(nms_cross_root)/build-cross/sysroot}"
}

# Where the musl toolchain lives: the npm package and the per-target compiler wrappers.
nms_musl_dir() {
    echo "${NMS_MUSL_TOOLCHAIN:-$(nms_cross_root)/build-cross/musl}"
}

# The ELF tools for any target: LLVM's (Debian's clang brings them); binutils of this host
# read only its own architecture.
nms_llvm_tool() {   # NAME: llvm-NAME of Debian's LLVM
    local t
    for t in "llvm-$1" /usr/lib/llvm-*/bin/"llvm-$1"; do
        if command -v "$t" >/dev/null 2>&1; then command -v "$t"; return 0; fi
    done
    echo "llvm-$1 is missing: run scripts/install-deps (Debian's clang brings LLVM's tools)" >&2
    return 1
}

# CMake options of a cross build for the target nms_cross_arch last set, one a line (read them
# with mapfile): the toolchain file and what it needs.
nms_cross_cmake_args() {
    local here
    here=$(nms_cross_root)
    if [ "$CROSS_LIBC" = musl ]; then
        printf '%s\n' "-DCMAKE_TOOLCHAIN_FILE=$here/cmake/cross/musl.cmake" \
            "-DNMS_CROSS_ARCH=$CROSS_ARCH" "-DNMS_CROSS_CPU=$CROSS_CPU" \
            "-DNMS_CROSS_QEMU=$CROSS_QEMU" "-DNMS_CROSS_QEMU_CPU=$CROSS_QEMU_CPU" \
            "-DNMS_MUSL_BIN=$(nms_musl_dir)/bin" "-DNMS_CROSS_LDSO=$CROSS_LDSO" \
            "-DNMS_SYSROOT=$(nms_sysroots_dir)/$CROSS_ARCH"
    else
        printf '%s\n' "-DCMAKE_TOOLCHAIN_FILE=$here/cmake/cross/toolchain.cmake" \
            "-DNMS_CROSS_TRIPLET=$CROSS_TRIPLET" "-DNMS_CROSS_CPU=$CROSS_CPU" \
            "-DNMS_CROSS_QEMU=$CROSS_QEMU" "-DNMS_SYSROOT=$(nms_sysroots_dir)/$CROSS_ARCH"
    fi
}
