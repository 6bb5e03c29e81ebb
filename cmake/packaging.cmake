# Packages for operators: a Debian package of the Linux programs, a zip of the Windows one.
#   native build:  cpack -G DEB   (in the build folder)   -> lynx-dfu_<version>_amd64.deb
#   mingw build:   cpack -G ZIP   (in the build folder)   -> lynx-dfu-<version>-win64.zip

set(CPACK_PACKAGE_NAME "lynx-dfu")
set(CPACK_PACKAGE_VENDOR "lynx-dfu project")
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Firmware update and DFU recovery for Lynx Series USB depth cameras")
set(CPACK_PACKAGE_CONTACT "lynx-dfu maintainers <lynx-dfu@localhost>")
set(CPACK_STRIP_FILES ON)

if(LYNX_TARGET_WINDOWS)
  # One folder with the program and what an operator reads first; the exe is static, so
  # nothing else is needed beside it.
  install(TARGETS lynx-dfu RUNTIME DESTINATION .)
  # With CR LF, so that every Windows editor shows its lines.
  configure_file(${PROJECT_SOURCE_DIR}/docs/windows-operator-readme.txt
                 ${CMAKE_CURRENT_BINARY_DIR}/README.txt @ONLY NEWLINE_STYLE WIN32)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/README.txt DESTINATION .)
  set(CPACK_GENERATOR ZIP)
  set(CPACK_SYSTEM_NAME win64)
  set(CPACK_INCLUDE_TOPLEVEL_DIRECTORY ON)
else()
  install(TARGETS lynx-dfu-lab RUNTIME DESTINATION bin)
  # man(1) reads compressed pages; -n keeps the archive identical from build to build.
  find_program(LYNX_GZIP gzip REQUIRED)
  set(lynx_man_page ${CMAKE_CURRENT_BINARY_DIR}/lynx-dfu.1.gz)
  add_custom_command(OUTPUT ${lynx_man_page}
                     COMMAND ${LYNX_GZIP} -9 -n -c ${PROJECT_SOURCE_DIR}/docs/lynx-dfu.1 > ${lynx_man_page}
                     DEPENDS ${PROJECT_SOURCE_DIR}/docs/lynx-dfu.1
                     VERBATIM)
  add_custom_target(lynx_man_page ALL DEPENDS ${lynx_man_page})
  install(FILES ${lynx_man_page} DESTINATION share/man/man1)

  set(CPACK_GENERATOR DEB)
  set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
  set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
  set(CPACK_DEBIAN_PACKAGE_SECTION utils)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  string(CONCAT CPACK_DEBIAN_PACKAGE_DESCRIPTION
         "lynx-dfu updates the firmware of the Lynx Series depth cameras through UVC and\n"
         "USB DFU 1.1 and recovers cameras stuck in DFU mode. lynx-dfu-lab runs the same\n"
         "program over a simulated world of devices. The udev rule lets members of the\n"
         "plugdev group reach the cameras.")
endif()

include(CPack)
