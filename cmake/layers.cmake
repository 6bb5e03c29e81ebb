# SPDX-License-Identifier: Apache-2.0
# Each library links only with the layers below it, lowest first in this list. A target
# belongs to the layer of the folder it is defined in; links to targets outside these folders
# (system and third-party libraries) are not layers and are not checked.
#
# Where two layers must meet, the composition goes in a layer above both. There is one such
# place: the camera enumeration's default family list (CameraDevicesFactory(std::ostream*),
# declared in camera/) is defined in app/default_enumeration.cpp, because the family's
# factory lives in updatable/. docs/architecture.md says why.
set(LYNX_LAYERS platform diag usb_core dfu camera updatable app)

function(lynx_layer_of target out)
  get_target_property(dir ${target} SOURCE_DIR)
  file(RELATIVE_PATH rel ${PROJECT_SOURCE_DIR} ${dir})
  string(REGEX REPLACE "/.*" "" top "${rel}")
  list(FIND LYNX_LAYERS "${top}" rank)
  set(${out} ${rank} PARENT_SCOPE)
  set(${out}_name ${top} PARENT_SCOPE)
endfunction()

function(lynx_check_layers)
  foreach(layer IN LISTS LYNX_LAYERS)
    set(dirs ${PROJECT_SOURCE_DIR}/${layer})
    set(targets "")
    while(dirs)
      list(POP_FRONT dirs dir)
      get_property(here DIRECTORY ${dir} PROPERTY BUILDSYSTEM_TARGETS)
      get_property(below DIRECTORY ${dir} PROPERTY SUBDIRECTORIES)
      list(APPEND targets ${here})
      list(APPEND dirs ${below})
    endwhile()
    foreach(target IN LISTS targets)
      lynx_layer_of(${target} rank)
      get_target_property(type ${target} TYPE)
      set(links "")
      if(NOT type STREQUAL "INTERFACE_LIBRARY")
        get_target_property(direct ${target} LINK_LIBRARIES)
        if(direct)
          list(APPEND links ${direct})
        endif()
      endif()
      get_target_property(usage ${target} INTERFACE_LINK_LIBRARIES)
      if(usage)
        list(APPEND links ${usage})
      endif()
      foreach(link IN LISTS links)
        string(REGEX REPLACE "^\\$<LINK_ONLY:(.*)>$" "\\1" link "${link}")
        if(NOT TARGET ${link})
          continue()
        endif()
        get_target_property(imported ${link} IMPORTED)
        if(imported)
          continue()
        endif()
        lynx_layer_of(${link} linked)
        if(linked GREATER rank)
          message(FATAL_ERROR "${target} (${rank_name}/) links ${link} (${linked_name}/), a layer "
                  "above it. Each library links only with the layers below it; what needs both "
                  "goes in a layer above them, as app/default_enumeration.cpp does for the "
                  "camera enumeration's family list, the one place where camera/ and updatable/ meet.")
        endif()
      endforeach()
    endforeach()
  endforeach()
endfunction()

lynx_check_layers()
