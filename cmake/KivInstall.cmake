include(CMakePackageConfigHelpers)

set(KIV_CMAKE_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/KivFramework")

install(
  TARGETS KivFramework
  EXPORT KivFrameworkTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT KivFrameworkTargets NAMESPACE KivFramework:: DESTINATION ${KIV_CMAKE_DIR})

configure_package_config_file(cmake/KivFrameworkConfig.cmake.in KivFrameworkConfig.cmake
                              INSTALL_DESTINATION ${KIV_CMAKE_DIR})
write_basic_package_version_file(KivFrameworkConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/KivFrameworkConfig.cmake"
              "${CMAKE_CURRENT_BINARY_DIR}/KivFrameworkConfigVersion.cmake"
        DESTINATION ${KIV_CMAKE_DIR})

configure_file(packaging/KivFramework.pc.in KivFramework.pc @ONLY)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/KivFramework.pc"
        DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
