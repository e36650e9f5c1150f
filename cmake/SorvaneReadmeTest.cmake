# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# The program that README.md shows first is built and run as it stands there.
function(sorvane_add_readme_test readme)
  if(NOT EXISTS "${readme}")
    return()
  endif()

  set(source "${CMAKE_CURRENT_BINARY_DIR}/readme_program.cpp")
  set(script "${PROJECT_SOURCE_DIR}/cmake/extract_first_cpp_block.cmake")
  add_custom_command(
    OUTPUT "${source}"
    COMMAND ${CMAKE_COMMAND} "-DMARKDOWN=${readme}" "-DOUTPUT=${source}" -P "${script}"
    DEPENDS "${readme}" "${script}"
    VERBATIM)

  add_executable(readme_program "${source}")
  target_link_libraries(readme_program PRIVATE Sorvane::signals sorvane-signals-warnings)
  set_target_properties(
    readme_program PROPERTIES CXX_STANDARD 17 CXX_EXTENSIONS OFF ENABLE_EXPORTS ON)
  add_test(NAME readme.program COMMAND readme_program)
  set_tests_properties(readme.program PROPERTIES TIMEOUT 60)
endfunction()
