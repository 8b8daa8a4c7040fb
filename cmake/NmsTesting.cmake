# Helpers to declare tests the same way in every folder.
#
#   nms_unit_test(NAME <target> LABEL <folder> SOURCES <files...> LIBS <targets...>
#                 [TSAN] [TIMEOUT <s>])
#     A GoogleTest binary whose cases CTest discovers when the suite runs.
#     Labels: "unit" and the folder's name; TSAN adds "tsan", which selects the
#     tests that the ThreadSanitizer run of `make test` executes.
#
#   nms_sandbox_test(NAME <target> SOURCES <files...> LIBS <targets...>
#                    [SERVICES "<list>"] [TIMEOUT <s>] [LABELS <labels...>])
#     A GoogleTest binary that runs inside scripts/sandbox, one sandbox per test
#     case, over the staged install tree. SERVICES (space separated) names the
#     services the sandbox starts before the test; default: all that are installed.

# gtest_discover_tests passes PROPERTIES through a script that splits every
# list into separate words, so a property holding a list (several LABELS,
# several ENVIRONMENT entries) cannot go through it. Such properties are set
# from a file CTest includes after the discovered tests, by their test list.
function(nms_set_discovered_properties target)
  set(script ${CMAKE_CURRENT_BINARY_DIR}/${target}_properties.cmake)
  set(body "if(${target}_TESTS)\n  set_tests_properties(\${${target}_TESTS} PROPERTIES")
  foreach(pair ${ARGN})
    string(FIND "${pair}" "=" eq)
    string(SUBSTRING "${pair}" 0 ${eq} name)
    math(EXPR start "${eq} + 1")
    string(SUBSTRING "${pair}" ${start} -1 value)
    string(REPLACE "|" ";" value "${value}")
    string(APPEND body " ${name} [==[${value}]==]")
  endforeach()
  string(APPEND body ")\nendif()\n")
  file(WRITE ${script} "${body}")
  set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES ${script})
endfunction()

function(nms_unit_test)
  cmake_parse_arguments(T "TSAN" "NAME;LABEL;TIMEOUT" "SOURCES;LIBS" ${ARGN})
  if(NOT T_TIMEOUT)
    set(T_TIMEOUT 120)
  endif()
  set(labels "unit;${T_LABEL}")
  if(T_TSAN)
    list(APPEND labels tsan)
  endif()
  add_executable(${T_NAME} ${T_SOURCES})
  target_link_libraries(${T_NAME} PRIVATE ${T_LIBS} GTest::gtest GTest::gtest_main
    GTest::gmock Threads::Threads nms_warnings)
  gtest_discover_tests(${T_NAME} DISCOVERY_MODE PRE_TEST
    PROPERTIES TIMEOUT ${T_TIMEOUT})
  string(REPLACE ";" "|" labels "${labels}")
  nms_set_discovered_properties(${T_NAME} "LABELS=${labels}")
endfunction()

function(nms_sandbox_test)
  cmake_parse_arguments(T "" "NAME;SERVICES;TIMEOUT" "SOURCES;LIBS;LABELS" ${ARGN})
  if(NOT T_TIMEOUT)
    set(T_TIMEOUT 180)
  endif()
  add_executable(${T_NAME} ${T_SOURCES})
  # nms_itest brings main(): listing runs plainly, every other run re-executes
  # the binary inside scripts/sandbox, so each case gets a sandbox of its own.
  target_link_libraries(${T_NAME} PRIVATE ${T_LIBS} nms_itest nms_warnings)
  set(env "NMS_STAGE=${NMS_TEST_STAGE}")
  if(NMS_CROSS_SANDBOX)
    list(APPEND env "NMS_SANDBOX_TARGET=${NMS_SYSROOT}" "NMS_SANDBOX_QEMU_CPU=${NMS_CROSS_QEMU_CPU}"
      "NMS_TEST_EMULATOR=${NMS_CROSS_QEMU}")
  endif()
  # SERVICES "" (start none) leaves T_SERVICES undefined; it is then a keyword without value.
  if(DEFINED T_SERVICES OR "SERVICES" IN_LIST T_KEYWORDS_MISSING_VALUES)
    list(APPEND env "NMS_SANDBOX_SERVICES=${T_SERVICES}")
  endif()
  gtest_discover_tests(${T_NAME} DISCOVERY_MODE PRE_TEST
    PROPERTIES TIMEOUT ${T_TIMEOUT} FIXTURES_REQUIRED nms_stage)
  set(labels integration ${T_LABELS})
  string(REPLACE ";" "|" labels "${labels}")
  string(REPLACE ";" "|" env "${env}")
  nms_set_discovered_properties(${T_NAME} "LABELS=${labels}" "ENVIRONMENT=${env}")
endfunction()

# nms_program_path(<var> <target>)
#   The path under which a test runs one of the tree's programs itself (fork and exec): the
#   program, or in a cross build a script that runs it under the emulator, since this host
#   cannot exec the target's binaries directly.
function(nms_program_path var target)
  if(CMAKE_CROSSCOMPILING_EMULATOR)
    string(REPLACE ";" " " emulator "${CMAKE_CROSSCOMPILING_EMULATOR}")
    set(wrapper ${CMAKE_BINARY_DIR}/emulated/${target})
    file(GENERATE OUTPUT ${wrapper}
      CONTENT "#!/bin/sh\nexec ${emulator} -0 $<TARGET_FILE_NAME:${target}> $<TARGET_FILE:${target}> \"$@\"\n"
      FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
                       WORLD_READ WORLD_EXECUTE)
    set(${var} ${wrapper} PARENT_SCOPE)
  else()
    set(${var} $<TARGET_FILE:${target}> PARENT_SCOPE)
  endif()
endfunction()
