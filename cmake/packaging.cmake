# SPDX-License-Identifier: Apache-2.0
# Packages for operators: a Debian package of the Linux programs, a zip of the Windows one.
#   native build:  cpack -G DEB   (in the build folder)   -> lynx-dfu_<version>_amd64.deb
#   mingw build:   cpack -G ZIP   (in the build folder)   -> lynx-dfu-<version>-win64.zip
#                  target lynx-dfu-msi (needs wixl)        -> lynx-dfu-<version>-win64.msi
#   signed:        scripts/sign-windows.sh signs the exe, then packs both and signs the MSI

set(CPACK_PACKAGE_NAME "lynx-dfu")
set(CPACK_PACKAGE_VENDOR "lynx-dfu project")
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Firmware update and DFU recovery for Lynx Series USB depth cameras")
set(LYNX_PACKAGE_MAINTAINER "lynx-dfu maintainers <maintainers@users.noreply.c-seed-91e1967e.example>"
    CACHE STRING "The Debian package's Maintainer field, name <address>")
set(CPACK_PACKAGE_CONTACT "${LYNX_PACKAGE_MAINTAINER}")
set(CPACK_STRIP_FILES ON)

if(LYNX_TARGET_WINDOWS)
  # One folder with the program and what an operator reads first; the exe is static, so
  # nothing else is needed beside it.
  install(TARGETS lynx-dfu RUNTIME DESTINATION .)
  # With CR LF, so that every Windows editor shows their lines.
  configure_file(${PROJECT_SOURCE_DIR}/docs/windows-operator-readme.txt
                 ${CMAKE_CURRENT_BINARY_DIR}/README.txt @ONLY NEWLINE_STYLE WIN32)
  configure_file(${PROJECT_SOURCE_DIR}/LICENSE ${CMAKE_CURRENT_BINARY_DIR}/LICENSE.txt
                 @ONLY NEWLINE_STYLE WIN32)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/README.txt ${CMAKE_CURRENT_BINARY_DIR}/LICENSE.txt
          DESTINATION .)
  set(CPACK_GENERATOR ZIP)
  set(CPACK_SYSTEM_NAME win64)
  set(CPACK_INCLUDE_TOPLEVEL_DIRECTORY ON)
  # The exe is linked stripped (-s). Stripped again on its way into the zip, a signed exe
  # would be rewritten and lose its signature.
  set(CPACK_STRIP_FILES OFF)

  # The installer: the same three files under Program Files, a Start menu shortcut and an
  # entry in Add/Remove Programs. wixl (Debian package wixl, from msitools) builds it from
  # the .wxs; without it the build goes on without an installer.
  find_program(LYNX_WIXL wixl)
  if(LYNX_WIXL)
    set(LYNX_MSI ${CMAKE_BINARY_DIR}/lynx-dfu-${PROJECT_VERSION}-win64.msi)
    set(LYNX_WXS ${PROJECT_SOURCE_DIR}/packaging/windows/lynx-dfu.wxs)
    # wixl 0.101 (Debian 12) finds no file named by an absolute path: the files are named
    # relative to the build folder, where it runs.
    add_custom_command(OUTPUT ${LYNX_MSI}
                       COMMAND ${LYNX_WIXL} --arch x64 -D Version=${PROJECT_VERSION}
                               -D Exe=$<PATH:RELATIVE_PATH,$<TARGET_FILE:lynx-dfu>,${CMAKE_CURRENT_BINARY_DIR}>
                               -D Readme=README.txt -D Licence=LICENSE.txt
                               -o ${LYNX_MSI} ${LYNX_WXS}
                       WORKING_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}
                       DEPENDS lynx-dfu ${LYNX_WXS} ${CMAKE_CURRENT_BINARY_DIR}/README.txt
                               ${CMAKE_CURRENT_BINARY_DIR}/LICENSE.txt
                       VERBATIM)
    add_custom_target(lynx-dfu-msi ALL DEPENDS ${LYNX_MSI})
  else()
    message(STATUS "wixl not found: no Windows installer (apt-get install wixl)")
  endif()
else()
  install(TARGETS lynx-dfu-lab RUNTIME DESTINATION bin)
  # man(1) reads compressed pages, and Debian wants its changelog the same way; -n keeps the
  # archives identical from build to build.
  find_program(LYNX_GZIP gzip REQUIRED)
  set(lynx_gzipped)
  foreach(program lynx-dfu lynx-dfu-lab lynx-virtual-camera)
    set(page ${CMAKE_CURRENT_BINARY_DIR}/${program}.1.gz)
    add_custom_command(OUTPUT ${page}
                       COMMAND ${LYNX_GZIP} -9 -n -c ${PROJECT_SOURCE_DIR}/docs/${program}.1 > ${page}
                       DEPENDS ${PROJECT_SOURCE_DIR}/docs/${program}.1
                       VERBATIM)
    list(APPEND lynx_gzipped ${page})
    install(FILES ${page} DESTINATION share/man/man1)
  endforeach()
  configure_file(${PROJECT_SOURCE_DIR}/packaging/debian/changelog.in
                 ${CMAKE_CURRENT_BINARY_DIR}/changelog @ONLY)
  set(lynx_changelog ${CMAKE_CURRENT_BINARY_DIR}/changelog.gz)
  add_custom_command(OUTPUT ${lynx_changelog}
                     COMMAND ${LYNX_GZIP} -9 -n -c ${CMAKE_CURRENT_BINARY_DIR}/changelog > ${lynx_changelog}
                     DEPENDS ${CMAKE_CURRENT_BINARY_DIR}/changelog
                     VERBATIM)
  list(APPEND lynx_gzipped ${lynx_changelog})
  add_custom_target(lynx_gzipped_docs ALL DEPENDS ${lynx_gzipped})

  # What the manual pages point at: the sample worlds and image to try the lab with, and the
  # longer documents.
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/lab/ DESTINATION share/lynx-dfu/worlds
          FILES_MATCHING PATTERN "*.json")
  install(FILES ${PROJECT_SOURCE_DIR}/lab/sample-firmware.bin DESTINATION share/lynx-dfu)
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/debian/copyright ${lynx_changelog}
                ${PROJECT_SOURCE_DIR}/docs/lab.md ${PROJECT_SOURCE_DIR}/docs/world-file.md
                ${PROJECT_SOURCE_DIR}/docs/virtual-camera.md ${PROJECT_SOURCE_DIR}/docs/linux.md
                ${PROJECT_SOURCE_DIR}/docs/commands.md ${PROJECT_SOURCE_DIR}/docs/recordings.md
          DESTINATION share/doc/lynx-dfu)

  # Why a warning of Debian's lintian does not apply to this package, said where lintian reads it.
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/debian/lintian-overrides
          DESTINATION share/lintian/overrides RENAME lynx-dfu)

  set(CPACK_GENERATOR DEB)
  set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
  set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
  set(CPACK_DEBIAN_PACKAGE_SECTION utils)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  string(CONCAT CPACK_DEBIAN_PACKAGE_DESCRIPTION
         "lynx-dfu updates the firmware of the Lynx Series depth cameras through UVC and\n"
         "USB DFU 1.1 and recovers cameras stuck in DFU mode. lynx-dfu-lab runs the same\n"
         "program over a simulated world of devices, and lynx-virtual-camera attaches a\n"
         "simulated camera to the machine's own USB bus through USB/IP. The udev rule\n"
         "lets members of the plugdev group reach the cameras.")
endif()

include(CPack)
