include(CMakeFindDependencyMacro)
find_dependency(SorvaneSignals)
include("${CMAKE_CURRENT_LIST_DIR}/parentTargets.cmake")
