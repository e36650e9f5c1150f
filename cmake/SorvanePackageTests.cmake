# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# The library is used by projects of their own: from the installed package through CMake and through
# pkg-config, by a plug-in, and as a part of another project.
set(SORVANE_SIGNALS_CONSUMERS_DIR "${CMAKE_CURRENT_LIST_DIR}/consumers")

# sorvane_add_consumer_test(NAME OPTION...): the options are those of the consumer's configuration.
function(sorvane_add_consumer_test name)
  add_test(
    NAME package.${name}
    COMMAND
      ${CMAKE_CTEST_COMMAND} --build-and-test "${SORVANE_SIGNALS_CONSUMERS_DIR}/installed"
      "${CMAKE_CURRENT_BINARY_DIR}/consumers/${name}" --build-generator Ninja --build-options
      ${consumer_options} ${ARGN} --test-command ${CMAKE_CTEST_COMMAND} --output-on-failure)
  set_tests_properties(package.${name} PROPERTIES TIMEOUT 300 PROCESSORS 2
                                                  FIXTURES_REQUIRED installed_package)
endfunction()

# sorvane_add_refusal_test(NAME SENTENCE OPTION...): the sentence is what CMake refuses with.
function(sorvane_add_refusal_test name sentence)
  add_test(
    NAME package.${name}
    COMMAND
      ${CMAKE_COMMAND} --fresh -G Ninja -S "${SORVANE_SIGNALS_CONSUMERS_DIR}/refused" -B
      "${CMAKE_CURRENT_BINARY_DIR}/consumers/${name}" "-DCMAKE_PREFIX_PATH=${prefix}" ${ARGN})
  set_tests_properties(package.${name} PROPERTIES TIMEOUT 60 PASS_REGULAR_EXPRESSION "${sentence}"
                                                  FIXTURES_REQUIRED installed_package)
endfunction()

function(sorvane_add_package_tests)
  set(prefix "${CMAKE_CURRENT_BINARY_DIR}/an installed package")
  set(version "${PROJECT_VERSION}")
  math(EXPR next_major "${PROJECT_VERSION_MAJOR} + 1")
  math(EXPR last_major "${PROJECT_VERSION_MAJOR} - 1")
  # How something was optimised makes no difference here.
  set(consumer_options "-DCMAKE_CXX_COMPILER=${CMAKE_CXX_COMPILER}"
                       "-DCMAKE_CXX_FLAGS=${CMAKE_CXX_FLAGS}" -DCMAKE_BUILD_TYPE=Debug)
  separate_arguments(flags UNIX_COMMAND "${CMAKE_CXX_FLAGS}")

  add_test(NAME package.install
           COMMAND ${CMAKE_COMMAND} "-DBUILD=${PROJECT_BINARY_DIR}" "-DPREFIX=${prefix}" -P
                   "${PROJECT_SOURCE_DIR}/cmake/install_afresh.cmake")
  set_tests_properties(package.install PROPERTIES TIMEOUT 60 FIXTURES_SETUP installed_package)
  add_test(NAME package.headers
           COMMAND "${SORVANE_SIGNALS_CONSUMERS_DIR}/check_installed_headers.sh"
                   "${prefix}/${CMAKE_INSTALL_INCLUDEDIR}" ${CMAKE_CXX_COMPILER} ${flags})
  add_test(NAME package.pkg_config
           COMMAND "${SORVANE_SIGNALS_CONSUMERS_DIR}/try_pkg_config.sh" "${prefix}"
                   "${CMAKE_INSTALL_LIBDIR}" ${version} ${CMAKE_CXX_COMPILER} ${flags})
  set_tests_properties(package.headers package.pkg_config
                       PROPERTIES TIMEOUT 60 FIXTURES_REQUIRED installed_package)

  foreach(kind IN ITEMS static shared)
    sorvane_add_consumer_test(${kind} "-DCMAKE_PREFIX_PATH=${prefix}" -DKIND=${kind}
                              -DWANTED_VERSION=${PROJECT_VERSION_MAJOR}.0)
  endforeach()
  # CMake's refusal names the version that it found.
  foreach(wrong_version IN ITEMS ${last_major}.9 ${next_major})
    sorvane_add_refusal_test(wrong_version_${wrong_version} "compatible.*version: ${version}"
                             -DWANTED_VERSION=${wrong_version})
  endforeach()
  sorvane_add_refusal_test(wrong_component "has no component \"dynamic\", only"
                           -DWANTED_COMPONENT=dynamic)

  add_test(
    NAME package.subproject
    COMMAND "${SORVANE_SIGNALS_CONSUMERS_DIR}/try_part.sh"
            "${CMAKE_CURRENT_BINARY_DIR}/consumers/subproject" "${PROJECT_SOURCE_DIR}"
            ${consumer_options})
  add_test(
    NAME package.fetched
    COMMAND "${SORVANE_SIGNALS_CONSUMERS_DIR}/try_part.sh"
            "${CMAKE_CURRENT_BINARY_DIR}/consumers/fetched" "${PROJECT_SOURCE_DIR}"
            ${consumer_options} -DFETCH=ON -DBUILD_SHARED_LIBS=ON)
  set_tests_properties(package.subproject package.fetched PROPERTIES TIMEOUT 300 PROCESSORS 2)
endfunction()
