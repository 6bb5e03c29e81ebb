# SPDX-License-Identifier: Apache-2.0
# The resources of a Windows program: its manifest and its version information, both made
# from the project's version, so that the two never disagree.
function(lynx_windows_resources target)
  set(LYNX_WIN32_DIR ${PROJECT_SOURCE_DIR}/platform/win32)
  set(LYNX_MANIFEST ${CMAKE_CURRENT_BINARY_DIR}/${target}.manifest)
  configure_file(${LYNX_WIN32_DIR}/app.manifest.in ${LYNX_MANIFEST} @ONLY)
  configure_file(${LYNX_WIN32_DIR}/app.rc.in ${CMAKE_CURRENT_BINARY_DIR}/${target}.rc @ONLY)
  target_sources(${target} PRIVATE ${CMAKE_CURRENT_BINARY_DIR}/${target}.rc)
  # windres does not see the manifest as a dependency of the .rc file.
  set_source_files_properties(${CMAKE_CURRENT_BINARY_DIR}/${target}.rc PROPERTIES
    OBJECT_DEPENDS ${LYNX_MANIFEST})
endfunction()
