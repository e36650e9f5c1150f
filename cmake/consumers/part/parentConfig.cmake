# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

include(CMakeFindDependencyMacro)
find_dependency(SorvaneSignals)
include("${CMAKE_CURRENT_LIST_DIR}/parentTargets.cmake")
