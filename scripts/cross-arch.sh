# cross-arch.sh - the device architectures the tree is cross-built and tested for. Sourced by
# scripts/install-deps, scripts/cross-test and scripts/ipk; defines nms_cross_arch ARCH, which
# sets the names below or says what it knows and returns 1.
#
#   CROSS_DEB      Debian's architecture name (sysroot packages, .ipk control field fallback)
#   CROSS_TRIPLET  GNU triplet of the cross toolchain (g++-<triplet> package, <triplet>-g++)
#   CROSS_QEMU     qemu-user binary that runs the target's programs on this host
#   CROSS_CPU      CMAKE_SYSTEM_PROCESSOR
#   CROSS_IPK      OpenWrt package architecture written into the .ipk
#   CROSS_DESC     word size and byte order, for summaries
#   CROSS_ARCH     the ARCH given
# Sysroots (the target's libc, libstdc++, json-c, libcurl and GoogleTest, unpacked from
# Debian's packages) live in $NMS_SYSROOTS/<arch>, by default build-cross/sysroot/<arch>.

NMS_CROSS_ALL="mipsel s390x aarch64 armhf"

nms_cross_arch() {
    CROSS_ARCH=$1
    case "$1" in
    mipsel)  CROSS_DEB=mipsel;  CROSS_TRIPLET=mipsel-linux-gnu;      CROSS_QEMU=qemu-mipsel
             CROSS_CPU=mipsel;  CROSS_IPK=mipsel_24kc;        CROSS_DESC="32-bit little-endian" ;;
    s390x)   CROSS_DEB=s390x;   CROSS_TRIPLET=s390x-linux-gnu;       CROSS_QEMU=qemu-s390x
             CROSS_CPU=s390x;   CROSS_IPK=s390x;              CROSS_DESC="64-bit big-endian" ;;
    aarch64) CROSS_DEB=arm64;   CROSS_TRIPLET=aarch64-linux-gnu;     CROSS_QEMU=qemu-aarch64
             CROSS_CPU=aarch64; CROSS_IPK=aarch64_cortex-a53; CROSS_DESC="64-bit little-endian" ;;
    armhf)   CROSS_DEB=armhf;   CROSS_TRIPLET=arm-linux-gnueabihf;   CROSS_QEMU=qemu-arm
             CROSS_CPU=arm;     CROSS_IPK=arm_cortex-a7_neon-vfpv4; CROSS_DESC="32-bit little-endian" ;;
    *)
        echo "unknown ARCH '$1': known targets are $NMS_CROSS_ALL" >&2
        return 1 ;;
    esac
}

nms_sysroots_dir() {
    local here
    here=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
    echo "${NMS_SYSROOTS:-$here/build-cross/sysroot}"
}

# CMake options of a cross build for the target nms_cross_arch last set, one a line (read them
# with mapfile): the toolchain file and what it needs.
nms_cross_cmake_args() {
    local here
    here=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
    printf '%s\n' "-DCMAKE_TOOLCHAIN_FILE=$here/cmake/cross/toolchain.cmake" \
        "-DNMS_CROSS_TRIPLET=$CROSS_TRIPLET" "-DNMS_CROSS_CPU=$CROSS_CPU" \
        "-DNMS_CROSS_QEMU=$CROSS_QEMU" "-DNMS_SYSROOT=$(nms_sysroots_dir)/$CROSS_ARCH"
}
