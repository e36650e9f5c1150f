include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# The public headers include the rest by relative path, so the tree is installed
# with its shape, under a folder of its own.
set(header_root "${CMAKE_INSTALL_INCLUDEDIR}/sorvane-signals")
set(package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/SorvaneSignals")

install(
  DIRECTORY libsrc/include libsrc/utilities libsrc/registry libsrc/datastructures libsrc/support
  DESTINATION "${header_root}"
  COMPONENT SorvaneSignals_Development
  FILES_MATCHING
  PATTERN "*.h")

install(
  TARGETS sorvane-signals-static sorvane-signals-shared
  EXPORT SorvaneSignalsTargets
  LIBRARY COMPONENT SorvaneSignals_Runtime
          NAMELINK_COMPONENT SorvaneSignals_Development
  ARCHIVE COMPONENT SorvaneSignals_Development
  INCLUDES DESTINATION "${header_root}/include")

install(
  EXPORT SorvaneSignalsTargets
  NAMESPACE Sorvane::
  DESTINATION "${package_dir}"
  COMPONENT SorvaneSignals_Development)

configure_package_config_file(
  cmake/SorvaneSignalsConfig.cmake.in "${PROJECT_BINARY_DIR}/SorvaneSignalsConfig.cmake"
  INSTALL_DESTINATION "${package_dir}")
write_basic_package_version_file(
  "${PROJECT_BINARY_DIR}/SorvaneSignalsConfigVersion.cmake" COMPATIBILITY SameMajorVersion)
install(
  FILES "${PROJECT_BINARY_DIR}/SorvaneSignalsConfig.cmake"
        "${PROJECT_BINARY_DIR}/SorvaneSignalsConfigVersion.cmake"
  DESTINATION "${package_dir}"
  COMPONENT SorvaneSignals_Development)

# Relative to the file itself, so that `cmake --install --prefix` and a tree that
# was moved later are right as well.
file(RELATIVE_PATH pc_prefix "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" "${CMAKE_INSTALL_PREFIX}")
string(REGEX REPLACE "/$" "" pc_prefix "${pc_prefix}")
configure_file(cmake/sorvane-signals.pc.in "${PROJECT_BINARY_DIR}/sorvane-signals.pc" @ONLY)
install(
  FILES "${PROJECT_BINARY_DIR}/sorvane-signals.pc"
  DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig"
  COMPONENT SorvaneSignals_Development)

include(cmake/SorvaneInspection.cmake)
