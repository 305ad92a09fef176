# The shipped executable asks the dynamic loader for the C library alone
# (and names the loader itself, which every dynamic program has anyway): the
# client is started once per web page, and every further shared library (the
# C++ runtime above all) is loaded and bound on each start.
execute_process(COMMAND readelf -d ${PROGRAM} OUTPUT_VARIABLE dynamic RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "readelf -d ${PROGRAM} failed: ${status}")
endif()
string(REGEX MATCHALL "\\(NEEDED\\)[^\n]*\\[[^]\n]*\\]" needed_lines "${dynamic}")
set(needed "")
foreach(line IN LISTS needed_lines)
  string(REGEX REPLACE ".*\\[([^]]*)\\]" "\\1" library "${line}")
  if(NOT library MATCHES "^ld-linux")
    list(APPEND needed ${library})
  endif()
endforeach()
if(NOT needed STREQUAL "libc.so.6")
  message(FATAL_ERROR "shared libraries needed: ${needed}; expected libc.so.6 alone")
endif()
