# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# Built from source in each build tree: there is no 32-bit package, and the
# sanitizers need to see it.
set(SORVANE_SIGNALS_GOOGLETEST_DIR /usr/src/googletest CACHE PATH "Source tree of GoogleTest")
if(NOT EXISTS "${SORVANE_SIGNALS_GOOGLETEST_DIR}/CMakeLists.txt")
  message(
    FATAL_ERROR
      "No GoogleTest sources in ${SORVANE_SIGNALS_GOOGLETEST_DIR}. Install the package "
      "'googletest', or configure with -DSORVANE_SIGNALS_BUILD_TESTS=OFF.")
endif()

set(BUILD_GMOCK OFF CACHE INTERNAL "")
set(INSTALL_GTEST OFF CACHE INTERNAL "")
block()
  # GoogleTest obeys BUILD_SHARED_LIBS, which is meant for this library alone.
  set(BUILD_SHARED_LIBS OFF)
  add_subdirectory("${SORVANE_SIGNALS_GOOGLETEST_DIR}" "${PROJECT_BINARY_DIR}/googletest"
                   EXCLUDE_FROM_ALL SYSTEM)
endblock()
# Nobody steps through it, and it has the longest of all compilations.
target_compile_options(gtest PRIVATE -O0 -g0)
