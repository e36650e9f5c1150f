# Every public header must compile alone and twice in a row, without a warning,
# in each language version that users may compile with.
function(sorvane_add_header_tests include_dir)
  separate_arguments(flags UNIX_COMMAND "${CMAKE_CXX_FLAGS}")
  file(GLOB headers CONFIGURE_DEPENDS "${include_dir}/sorvane/*.h")
  # clang++ 14 does not know C++23 by its final name yet.
  set(language_versions cxx17=c++17 cxx20=c++20 cxx23=c++2b)

  foreach(header IN LISTS headers)
    cmake_path(GET header STEM name)
    set(source "${CMAKE_CURRENT_BINARY_DIR}/headers/${name}.cpp")
    set(include_line "#include <sorvane/${name}.h>\n")
    file(CONFIGURE OUTPUT "${source}" CONTENT "${include_line}${include_line}")

    foreach(language_version IN LISTS language_versions)
      string(REPLACE "=" ";" language_version "${language_version}")
      list(GET language_version 0 suffix)
      list(GET language_version 1 standard)
      add_test(
        NAME headers.${name}.${suffix}
        COMMAND
          ${CMAKE_CXX_COMPILER} ${flags} -std=${standard} -fsyntax-only
          ${SORVANE_SIGNALS_WARNING_FLAGS} -Werror "-I${include_dir}" "${source}")
      set_tests_properties(headers.${name}.${suffix} PROPERTIES TIMEOUT 60)
    endforeach()
  endforeach()
endfunction()
