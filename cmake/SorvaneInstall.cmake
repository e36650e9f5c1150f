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
    # A project around this one may export its own targets from where they are built.
    if(NOT PROJECT_IS_TOP_LEVEL)
      export(
        EXPORT SorvaneSignals-${kind}
        NAMESPACE Sorvane::
        FILE "${PROJECT_BINARY_DIR}/SorvaneSignals-${kind}.cmake")
    endif()
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
# right as well. But in the system's own folders pkg-config has to know them as what they are, to
# leave them out behind those of the user's.
set(include_folder "${CMAKE_INSTALL_FULL_INCLUDEDIR}/sorvane-signals/include")
set(pc_folder "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig")
file(RELATIVE_PATH pc_prefix "${pc_folder}" "${CMAKE_INSTALL_PREFIX}")
file(RELATIVE_PATH pc_includedir "${pc_folder}" "${include_folder}")
set(pc_prefix "\${pcfiledir}/${pc_prefix}")
set(pc_libdir "\${pcfiledir}/..")
set(pc_includedir "\${pcfiledir}/${pc_includedir}")
configure_file(cmake/sorvane-signals.pc.in "${PROJECT_BINARY_DIR}/sorvane-signals.pc" @ONLY)
set(pc_prefix /usr)
set(pc_libdir "/usr/${CMAKE_INSTALL_LIBDIR}")
set(pc_includedir "/usr/${CMAKE_INSTALL_INCLUDEDIR}/sorvane-signals/include")
configure_file(cmake/sorvane-signals.pc.in
               "${PROJECT_BINARY_DIR}/of_the_system/sorvane-signals.pc" @ONLY)
install(
  CODE "set(sorvane_pc_folder \"${PROJECT_BINARY_DIR}\")
        if(CMAKE_INSTALL_PREFIX STREQUAL \"/usr\")
          string(APPEND sorvane_pc_folder /of_the_system)
        endif()
        file(INSTALL \"\${sorvane_pc_folder}/sorvane-signals.pc\"
             DESTINATION \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig\")"
  COMPONENT SorvaneSignals_Development)

include(cmake/SorvaneInspection.cmake)
