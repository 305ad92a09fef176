# Installs the build into PREFIX and compares the files installed with the
# expected list.
file(REMOVE_RECURSE ${PREFIX})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${PREFIX}
                RESULT_VARIABLE status OUTPUT_QUIET)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "cmake --install failed: ${status}")
endif()
file(GLOB_RECURSE installed RELATIVE ${PREFIX} ${PREFIX}/*)
list(SORT installed)
set(expected
  sbin/wifi_manager
  share/doc/wifi_manager/examples/wifi_manager.init
  share/doc/wifi_manager/examples/wifi_manager.service
  share/doc/wifi_manager/examples/wifi_station.sh
  share/doc/wifi_manager/examples/wifista_connected.sh
  share/man/man8/wifi_manager.8)
if(NOT installed STREQUAL expected)
  message(FATAL_ERROR "installed:\n  ${installed}\nexpected:\n  ${expected}")
endif()
if(NOT IS_SYMLINK ${PREFIX}/sbin/wifi_manager AND NOT EXISTS ${PREFIX}/sbin/wifi_manager)
  message(FATAL_ERROR "no program installed")
endif()
file(REMOVE_RECURSE ${PREFIX})
