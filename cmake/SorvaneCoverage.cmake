# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# Counts which lines and branches run, for the report of `./dev coverage`.
if(NOT SORVANE_SIGNALS_COVERAGE)
  return()
endif()

# Threads and signal handlers count at once, hence the atomic counters. What is not the library's is
# none of the report's business, and would take long if it counted: the tests' own functions, and
# GoogleTest, the one system library that is built here.
set(coverage_flags --coverage -fprofile-update=atomic
                   "-fprofile-filter-files=.*/libsrc/.*")
add_compile_options("$<$<NOT:$<BOOL:$<TARGET_PROPERTY:SYSTEM>>>:${coverage_flags}>")
add_link_options(--coverage)

# Linked into each program.
add_library(sorvane-signals-coverage-exit OBJECT cmake/coverage_exit.cpp)
link_libraries($<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>:sorvane-signals-coverage-exit>)
