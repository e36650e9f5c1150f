# The library is used by a project of its own: from the installed package through
# CMake and through pkg-config, and as a subproject.
set(SORVANE_SIGNALS_CONSUMER_DIR "${CMAKE_CURRENT_LIST_DIR}/consumer")

# sorvane_add_consumer_test(NAME OPTION...): the options are those of the consumer's configuration.
function(sorvane_add_consumer_test name)
  add_test(
    NAME package.${name}
    COMMAND
      ${CMAKE_CTEST_COMMAND} --build-and-test "${SORVANE_SIGNALS_CONSUMER_DIR}"
      "${CMAKE_CURRENT_BINARY_DIR}/consumer/${name}" --build-generator Ninja --build-options
      "-DCMAKE_CXX_COMPILER=${CMAKE_CXX_COMPILER}" "-DCMAKE_CXX_FLAGS=${CMAKE_CXX_FLAGS}"
      "-DCMAKE_BUILD_TYPE=${CMAKE_BUILD_TYPE}" ${ARGN} --test-command ${CMAKE_CTEST_COMMAND}
      --output-on-failure)
  set_tests_properties(package.${name} PROPERTIES TIMEOUT 300 PROCESSORS 2)
endfunction()

function(sorvane_add_package_tests)
  set(prefix "${CMAKE_CURRENT_BINARY_DIR}/installed")
  set(version "${PROJECT_VERSION}")
  math(EXPR next_major "${PROJECT_VERSION_MAJOR} + 1")

  add_test(NAME package.install
           COMMAND ${CMAKE_COMMAND} "-DBUILD=${PROJECT_BINARY_DIR}" "-DPREFIX=${prefix}" -P
                   "${PROJECT_SOURCE_DIR}/cmake/install_afresh.cmake")
  set_tests_properties(package.install PROPERTIES TIMEOUT 60 FIXTURES_SETUP installed_package)

  separate_arguments(flags UNIX_COMMAND "${CMAKE_CXX_FLAGS}")
  add_test(NAME package.pkg_config
           COMMAND "${SORVANE_SIGNALS_CONSUMER_DIR}/try_pkg_config.sh" "${prefix}"
                   "${CMAKE_INSTALL_LIBDIR}" ${version} ${CMAKE_CXX_COMPILER} ${flags})
  set_tests_properties(package.pkg_config PROPERTIES TIMEOUT 60)

  sorvane_add_consumer_test(cmake "-DCMAKE_PREFIX_PATH=${prefix}" -DWANTED_VERSION=${version})
  sorvane_add_consumer_test(
    wrong_version "-DCMAKE_PREFIX_PATH=${prefix}" -DWANTED_VERSION=${next_major})
  # CMake's refusal names the version that it found.
  set_tests_properties(package.wrong_version PROPERTIES PASS_REGULAR_EXPRESSION
                                                        "compatible.*version: ${version}")
  set_tests_properties(package.pkg_config package.cmake package.wrong_version
                       PROPERTIES FIXTURES_REQUIRED installed_package)

  sorvane_add_consumer_test(subproject "-DSUBPROJECT=${PROJECT_SOURCE_DIR}")
endfunction()
