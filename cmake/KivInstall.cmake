# Components: runtime (what programs run with), development (what they are built with). The agent's
# programs and pages are a third, see examples/agent/.
include(CMakePackageConfigHelpers)

set(KIV_CMAKE_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/KivFramework")

install(
  TARGETS KivFramework
  EXPORT KivFrameworkTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
          COMPONENT runtime
          NAMELINK_COMPONENT development
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
  FILE_SET HEADERS
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  COMPONENT development)
install(
  EXPORT KivFrameworkTargets
  NAMESPACE KivFramework::
  DESTINATION ${KIV_CMAKE_DIR}
  COMPONENT development)

configure_package_config_file(cmake/KivFrameworkConfig.cmake.in KivFrameworkConfig.cmake
                              INSTALL_DESTINATION ${KIV_CMAKE_DIR})
write_basic_package_version_file(KivFrameworkConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(
  FILES "${CMAKE_CURRENT_BINARY_DIR}/KivFrameworkConfig.cmake"
        "${CMAKE_CURRENT_BINARY_DIR}/KivFrameworkConfigVersion.cmake"
  DESTINATION ${KIV_CMAKE_DIR}
  COMPONENT development)

# An installed tree may be moved as long as its directories lie below the prefix; an absolute one
# stays where it was put.
set(pkgconfig_dir "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(pc_prefix "${CMAKE_INSTALL_PREFIX}")
else()
  file(RELATIVE_PATH pc_prefix "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" "${CMAKE_INSTALL_PREFIX}")
  string(REGEX REPLACE "/$" "" pc_prefix "\${pcfiledir}/${pc_prefix}")
endif()
set(pc_libdir "\${prefix}")
cmake_path(APPEND pc_libdir "${CMAKE_INSTALL_LIBDIR}")
set(pc_includedir "\${prefix}")
cmake_path(APPEND pc_includedir "${CMAKE_INSTALL_INCLUDEDIR}")
# Hosts of the shared library never link what it needs itself; those of the static one have to.
set(pc_private .private)
set(pc_system_libs "")
if(KIV_BUILD_STATIC)
  set(pc_private "")
  set(pc_system_libs " -pthread -ldl")
endif()
configure_file(packaging/kivframework.pc.in kivframework.pc @ONLY)
install(
  FILES "${CMAKE_CURRENT_BINARY_DIR}/kivframework.pc"
  DESTINATION "${pkgconfig_dir}"
  COMPONENT development)
