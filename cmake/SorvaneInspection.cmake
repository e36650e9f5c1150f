# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# What looks inside: the printers for gdb, and sorvane-dump, with their manual pages.
set(inspection_dir "${PROJECT_SOURCE_DIR}/inspection")
set(gdb_printers "${inspection_dir}/sorvane-signals-gdb.py")

install(
  PROGRAMS "${inspection_dir}/sorvane-dump"
  DESTINATION "${CMAKE_INSTALL_BINDIR}"
  COMPONENT SorvaneSignals_Development)
install(
  FILES "${inspection_dir}/sorvane-dump.1"
  DESTINATION "${CMAKE_INSTALL_MANDIR}/man1"
  COMPONENT SorvaneSignals_Development)
install(
  FILES "${inspection_dir}/sorvane-signals-gdb.7"
  DESTINATION "${CMAKE_INSTALL_MANDIR}/man7"
  COMPONENT SorvaneSignals_Development)
# For programs that have the library inside; gdb looks for nothing beside those.
install(
  FILES "${gdb_printers}"
  DESTINATION "${CMAKE_INSTALL_DATADIR}/sorvane-signals"
  COMPONENT SorvaneSignals_Development)

# gdb loads by itself what is named after a library and lies beside it, or in its own folder below
# /usr, which is the only one of the two that it trusts unasked.
if(TARGET sorvane-signals-shared)
  set(auto_load_dir "${CMAKE_INSTALL_LIBDIR}")
  if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    set(auto_load_dir "${CMAKE_INSTALL_DATADIR}/gdb/auto-load${CMAKE_INSTALL_FULL_LIBDIR}")
  endif()
  install(
    FILES "${gdb_printers}"
    DESTINATION "${auto_load_dir}"
    RENAME "$<TARGET_FILE_NAME:sorvane-signals-shared>-gdb.py"
    COMPONENT SorvaneSignals_Runtime)
endif()
