# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# The version is kept in one place, the header that users read it from.
function(sorvane_read_version variable header)
  set(header "${CMAKE_CURRENT_SOURCE_DIR}/${header}")
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${header}")
  file(READ "${header}" text)

  set(numbers "")
  foreach(part IN ITEMS MAJOR MINOR PATCH)
    if(NOT text MATCHES "#define[ \t]+${variable}_${part}[ \t]+([0-9]+)")
      message(FATAL_ERROR "${header} does not define ${variable}_${part} as a plain number")
    endif()
    list(APPEND numbers "${CMAKE_MATCH_1}")
  endforeach()

  list(JOIN numbers "." version)
  set(${variable} "${version}" PARENT_SCOPE)
endfunction()
