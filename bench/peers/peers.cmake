# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# Those that are missing are left out; tools/bench.py names them.
find_package(PkgConfig)
foreach(peer IN ITEMS ace:ACE libuv:libuv glib:glib-2.0)
  string(REPLACE ":" ";" peer ${peer})
  list(POP_FRONT peer name)
  if(PKG_CONFIG_FOUND)
    pkg_check_modules(SORVANE_BENCH_${name} IMPORTED_TARGET ${peer})
  endif()
  if(SORVANE_BENCH_${name}_FOUND)
    sorvane_add_bench(peers/${name}.cpp PkgConfig::SORVANE_BENCH_${name})
  endif()
endforeach()

find_path(asio boost/asio/signal_set.hpp NO_CACHE)
if(asio)
  sorvane_add_bench(peers/asio.cpp)
endif()

find_program(rustc rustc NO_CACHE)
set(crates /usr/share/cargo/registry)
file(GLOB signal_hook ${crates}/signal-hook-registry-*)
if(rustc AND signal_hook)
  set(signal_hook_library ${CMAKE_CURRENT_BINARY_DIR}/crates/libsignal_hook.a)
  set(signal_hook_sources ${CMAKE_CURRENT_SOURCE_DIR}/peers/build_signal_hook.sh
                          ${CMAKE_CURRENT_SOURCE_DIR}/peers/signal_hook.rs)
  add_custom_command(
    OUTPUT ${signal_hook_library}
    COMMAND ${signal_hook_sources} ${crates} ${CMAKE_CURRENT_BINARY_DIR}/crates
    DEPENDS ${signal_hook_sources})
  sorvane_add_bench(peers/signal_hook.cpp ${signal_hook_library} ${CMAKE_DL_LIBS})
  # With which the library is made first.
  target_sources(bench-signal_hook PRIVATE ${signal_hook_library})
endif()
