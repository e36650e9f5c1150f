# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# The warnings that the whole tree is free of. Linked privately, and to nothing of a
# project that has the library as a part: they are no business of its users.
set(SORVANE_SIGNALS_WARNING_FLAGS
    -Wall
    -Wextra
    -Wpedantic
    -Wconversion
    -Wsign-conversion
    -Wshadow
    -Wold-style-cast
    -Wundef)
if(SORVANE_SIGNALS_WARNINGS_AS_ERRORS)
  list(APPEND SORVANE_SIGNALS_WARNING_FLAGS -Werror)
endif()

add_library(sorvane-signals-warnings INTERFACE)
target_compile_options(sorvane-signals-warnings INTERFACE ${SORVANE_SIGNALS_WARNING_FLAGS})
