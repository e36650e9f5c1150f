# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# Usage: cmake -DBUILD=dir -DPREFIX=dir -P install_afresh.cmake
# A file of an earlier installation would hide that it is installed no more. What was installed is
# moved to where it is used, as users may move it.
set(before "${PREFIX} before it is moved")
file(REMOVE_RECURSE "${PREFIX}" "${before}")
execute_process(
  COMMAND ${CMAKE_COMMAND} --install "${BUILD}" --prefix "${before}" COMMAND_ERROR_IS_FATAL ANY)
file(RENAME "${before}" "${PREFIX}")
