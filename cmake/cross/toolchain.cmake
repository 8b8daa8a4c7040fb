# Cross toolchain for the glibc target of scripts/cross-arch.sh: Debian's cross g++ for
# NMS_CROSS_TRIPLET, a sysroot of the target's own libraries in NMS_SYSROOT, and qemu-user to
# run what is built (test discovery, ctest). scripts/cross-test passes all four values:
#   cmake -DCMAKE_TOOLCHAIN_FILE=cmake/cross/toolchain.cmake -DNMS_CROSS_TRIPLET=s390x-linux-gnu
#         -DNMS_CROSS_CPU=s390x -DNMS_CROSS_QEMU=qemu-s390x -DNMS_SYSROOT=<sysroot> ...
# The OpenWrt (musl) targets use musl.cmake.
include(${CMAKE_CURRENT_LIST_DIR}/values.cmake)
nms_toolchain_values("cross toolchain" NMS_CROSS_TRIPLET NMS_CROSS_CPU NMS_CROSS_QEMU NMS_SYSROOT)

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${NMS_CROSS_CPU})
set(CMAKE_C_COMPILER ${NMS_CROSS_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${NMS_CROSS_TRIPLET}-g++)
set(CMAKE_SYSROOT ${NMS_SYSROOT})
set(CMAKE_LIBRARY_ARCHITECTURE ${NMS_CROSS_TRIPLET})
set(CMAKE_CROSSCOMPILING_EMULATOR ${NMS_CROSS_QEMU} -L ${NMS_SYSROOT})

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config reads the target's .pc files and prefixes their paths with the sysroot.
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${NMS_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR}
  "${NMS_SYSROOT}/usr/lib/${NMS_CROSS_TRIPLET}/pkgconfig:${NMS_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")
