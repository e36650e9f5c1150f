# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# Set for the whole directory, not for single targets: a sanitizer that has not
# seen every object, GoogleTest's included, reports errors that are none.
if(NOT SORVANE_SIGNALS_SANITIZERS)
  return()
endif()

list(JOIN SORVANE_SIGNALS_SANITIZERS "," sanitizers)
add_compile_options(-fsanitize=${sanitizers} -fno-sanitize-recover=all -fno-omit-frame-pointer)
add_link_options(-fsanitize=${sanitizers})

# The run-time options are compiled into each program, so that it behaves alike
# under CTest, in a debugger and when it is called by hand.
add_library(sorvane-signals-sanitizer-options OBJECT cmake/sanitizer_options.cpp)
link_libraries($<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>:sorvane-signals-sanitizer-options>)
