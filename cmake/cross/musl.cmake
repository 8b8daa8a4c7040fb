# Toolchain for the OpenWrt device targets (musl) of scripts/cross-arch.sh: zig's clang, with
# musl, libc++ and compiler-rt for the target, through the wrappers scripts/install-deps
# writes in NMS_MUSL_BIN; the target's own libraries (json-c, GoogleTest) in NMS_SYSROOT;
# qemu-user to run what is built, on a CPU of the target's kind. scripts/cross-test and
# scripts/ipk pass every value (scripts/cross-arch.sh, nms_cross_cmake_args).
include(${CMAKE_CURRENT_LIST_DIR}/values.cmake)
nms_toolchain_values("musl toolchain" NMS_CROSS_ARCH NMS_CROSS_CPU NMS_CROSS_QEMU NMS_CROSS_QEMU_CPU
  NMS_MUSL_BIN NMS_CROSS_LDSO NMS_SYSROOT)
if(NOT EXISTS ${NMS_MUSL_BIN}/${NMS_CROSS_ARCH}-c++)
  message(FATAL_ERROR "musl toolchain: ${NMS_MUSL_BIN}/${NMS_CROSS_ARCH}-c++ is missing: "
    "run scripts/install-deps --cross ${NMS_CROSS_ARCH}")
endif()

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${NMS_CROSS_CPU})
set(CMAKE_C_COMPILER ${NMS_MUSL_BIN}/${NMS_CROSS_ARCH}-cc)
set(CMAKE_CXX_COMPILER ${NMS_MUSL_BIN}/${NMS_CROSS_ARCH}-c++)
set(CMAKE_AR ${NMS_MUSL_BIN}/zig-ar CACHE FILEPATH "archiver")
set(CMAKE_RANLIB ${NMS_MUSL_BIN}/zig-ranlib CACHE FILEPATH "ranlib")
# ELF tools that read every target (install-deps links LLVM's into NMS_MUSL_BIN).
foreach(t NM READELF STRIP OBJCOPY OBJDUMP)
  string(TOLOWER ${t} l)
  set(CMAKE_${t} ${NMS_MUSL_BIN}/llvm-${l} CACHE FILEPATH "${l}")
endforeach()
# The interpreter OpenWrt's musl has (zig's default name lacks the soft-float suffix).
# zig links with --gc-sections unless told otherwise, which drops every function and variable
# nothing refers to: exactly those the debug shell calls and sets by name (__attribute__((used))
# keeps them in the object, not in the program). Programs keep all they define, as with GCC.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,--dynamic-linker=${NMS_CROSS_LDSO} -Wl,--no-gc-sections")

set(CMAKE_FIND_ROOT_PATH ${NMS_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_CROSSCOMPILING_EMULATOR ${NMS_CROSS_QEMU} -L ${NMS_SYSROOT} -cpu ${NMS_CROSS_QEMU_CPU})

# The sandbox tests run here too (binfmt_misc runs the target's programs under qemu-user).
set(NMS_CROSS_SANDBOX ON)

set(ENV{PKG_CONFIG_SYSROOT_DIR} ${NMS_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR} "${NMS_SYSROOT}/usr/lib/pkgconfig:${NMS_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")
