# Symbol lists of a program for its debug shell, made at build time beside it.
#
#   nms_symbol_lists(<target> [DESTINATION <dir>])
#     After every link of <target>, writes <name>_symbol_fun and <name>_symbol_obj
#     next to the program (<name> is the program's file name); with DESTINATION they
#     are installed there too, beside the installed program.
set(NMS_SYMBOL_LISTS_SCRIPT ${CMAKE_CURRENT_LIST_DIR}/nms_symbol_lists.sh)

function(nms_symbol_lists target)
  cmake_parse_arguments(S "" "DESTINATION" "" ${ARGN})
  set(dir $<TARGET_FILE_DIR:${target}>)
  set(name $<TARGET_FILE_NAME:${target}>)
  add_custom_command(TARGET ${target} POST_BUILD
    COMMAND sh ${NMS_SYMBOL_LISTS_SCRIPT} ${CMAKE_NM} $<TARGET_FILE:${target}>
            ${dir}/${name}_symbol_fun ${dir}/${name}_symbol_obj ${CMAKE_READELF}
    COMMENT "Symbol lists of ${target}"
    VERBATIM)
  if(S_DESTINATION)
    install(FILES ${dir}/${name}_symbol_fun ${dir}/${name}_symbol_obj
      DESTINATION ${S_DESTINATION})
  endif()
endfunction()
