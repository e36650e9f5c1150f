# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# What the public headers include, by relative path: so it is installed with its shape, under a
# folder of its own. A test compares the list with what they include.
set(public_headers
    datastructures/svgenerichashfunction.h
    datastructures/svhashtable.h
    datastructures/svhashtableentry.h
    datastructures/svhashtableentry_iterator.h
    datastructures/svhashtablefailure.h
    include/sorvane/svhashtable.h
    include/sorvane/svsignalevents.h
    include/sorvane/svsignalhandlermanager.h
    include/sorvane/svsignalsubscription.h
    include/sorvane/svversion.h
    registry/svsignaltables.h
    support/svexception.h
    support/svexport.h
    support/svfailure.h
    support/svmutex.h
    support/svobject.h
    support/svsignalhandler.h
    support/svsignalhandlerdispositionset.h
    support/svstdallocator.h
    utilities/svdefaultaction.h
    utilities/svsignalevents.h
    utilities/svsignalhandlermanager.h
    utilities/svsignalsubscription.h
    utilities/svsubscriber.h)
set(header_root "${CMAKE_INSTALL_INCLUDEDIR}/sorvane-signals")
set(package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/SorvaneSignals")

foreach(header IN LISTS public_headers)
  cmake_path(GET header PARENT_PATH folder)
  install(
    FILES libsrc/${header}
    DESTINATION "${header_root}/${folder}"
    COMPONENT SorvaneSignals_Development)
endforeach()

# A set of its own for each kind, so that both can be installed from builds of their own.
foreach(kind IN ITEMS static shared)
  if(TARGET sorvane-signals-${kind})
    install(
      TARGETS sorvane-signals-${kind}
      EXPORT SorvaneSignals-${kind}
      LIBRARY COMPONENT SorvaneSignals_Runtime
              NAMELINK_COMPONENT SorvaneSignals_Development
      ARCHIVE COMPONENT SorvaneSignals_Development
      INCLUDES
      DESTINATION "${header_root}/include")
    install(
      EXPORT SorvaneSignals-${kind}
      NAMESPACE Sorvane::
      DESTINATION "${package_dir}"
      COMPONENT SorvaneSignals_Development)
  endif()
endforeach()

configure_package_config_file(
  cmake/SorvaneSignalsConfig.cmake.in "${PROJECT_BINARY_DIR}/SorvaneSignalsConfig.cmake"
  INSTALL_DESTINATION "${package_dir}" NO_CHECK_REQUIRED_COMPONENTS_MACRO)
write_basic_package_version_file(
  "${PROJECT_BINARY_DIR}/SorvaneSignalsConfigVersion.cmake" COMPATIBILITY SameMajorVersion)
install(
  FILES "${PROJECT_BINARY_DIR}/SorvaneSignalsConfig.cmake"
        "${PROJECT_BINARY_DIR}/SorvaneSignalsConfigVersion.cmake"
  DESTINATION "${package_dir}"
  COMPONENT SorvaneSignals_Development)

# Relative to the file itself, so that `cmake --install --prefix` and a tree that was moved later are
# right as well.
file(RELATIVE_PATH pc_include_dir "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig"
     "${CMAKE_INSTALL_FULL_INCLUDEDIR}/sorvane-signals/include")
configure_file(cmake/sorvane-signals.pc.in "${PROJECT_BINARY_DIR}/sorvane-signals.pc" @ONLY)
install(
  FILES "${PROJECT_BINARY_DIR}/sorvane-signals.pc"
  DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig"
  COMPONENT SorvaneSignals_Development)
