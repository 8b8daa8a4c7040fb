# nms_toolchain_values(<what> <var>...): the values a toolchain file is given on the command line.
# try_compile projects re-read the toolchain file without them, so each given value is put into
# the environment and read back from there; one missing in both stops the configuration.
macro(nms_toolchain_values what)
  foreach(v ${ARGN})
    if(DEFINED ${v})
      set(ENV{${v}} "${${v}}")
    else()
      set(${v} "$ENV{${v}}")
    endif()
    if(${v} STREQUAL "")
      message(FATAL_ERROR "${what}: ${v} is not set (use scripts/cross-test or make ipk)")
    endif()
  endforeach()
endmacro()
