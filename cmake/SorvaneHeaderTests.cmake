# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# Every public header must compile alone and twice in a row, without a warning,
# in each language version that users may compile with, and without exceptions and
# run-time type information; and behind macros of others.
function(sorvane_add_header_tests include_dir)
  separate_arguments(flags UNIX_COMMAND "${CMAKE_CXX_FLAGS}")
  file(GLOB headers CONFIGURE_DEPENDS "${include_dir}/sorvane/*.h")
  # clang++ 14 does not know C++23 by its final name yet.
  set(cxx17_options -std=c++17)
  set(cxx20_options -std=c++20)
  set(cxx23_options -std=c++2b)
  set(cxx17_plain_options -std=c++17 -fno-exceptions -fno-rtti)
  set(cxx17_macros_options -std=c++17 -include "${PROJECT_SOURCE_DIR}/cmake/macros_of_others.h")

  foreach(header IN LISTS headers)
    cmake_path(GET header STEM name)
    set(source "${CMAKE_CURRENT_BINARY_DIR}/headers/${name}.cpp")
    set(include_line "#include <sorvane/${name}.h>\n")
    file(CONFIGURE OUTPUT "${source}" CONTENT "${include_line}${include_line}")

    foreach(suffix IN ITEMS cxx17 cxx20 cxx23 cxx17_plain cxx17_macros)
      add_test(
        NAME headers.${name}.${suffix}
        COMMAND
          ${CMAKE_CXX_COMPILER} ${flags} ${${suffix}_options} -fsyntax-only
          ${SORVANE_SIGNALS_WARNING_FLAGS} -Werror "-I${include_dir}" "${source}")
      set_tests_properties(headers.${name}.${suffix} PROPERTIES TIMEOUT 60)
    endforeach()
  endforeach()
endfunction()
