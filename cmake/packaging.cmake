# Debian package of the installed files (cpack -G DEB in a build directory),
# for the machine the build is for: amd64 natively, armhf with the cross
# toolchain file.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME wifi-manager)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "wifi_manager developers <wifi-manager@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "keeps a wireless interface connected as a station, through wpa_supplicant")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf)
else()
  execute_process(COMMAND dpkg --print-architecture
                  OUTPUT_VARIABLE CPACK_DEBIAN_PACKAGE_ARCHITECTURE
                  OUTPUT_STRIP_TRAILING_WHITESPACE)
endif()
# libwpa_client, SimpleIni and the C++ and GCC runtimes are linked in; what
# remains is the C library, from 2.35 on (the linked-in GCC unwinder asks for
# _dl_find_object). (dpkg-shlibdeps cannot see armhf libraries that are not
# installed, so the list is written out.)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libc6 (>= 2.35)")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS wpasupplicant)
include(CPack)
