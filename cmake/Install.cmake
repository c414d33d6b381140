# Installs the library, its headers, its resources, a CMake package and a pkg-config file.
include(CMakePackageConfigHelpers)

install(TARGETS ZRVKit EXPORT ZRVKitTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY include/ZRVKit DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/include/ZRVKit/ZRVKitVersion.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/ZRVKit)
install(DIRECTORY resources/ DESTINATION ${CMAKE_INSTALL_DATADIR}/ZRVKit
  FILES_MATCHING PATTERN "*.json")

set(ZRV_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/ZRVKit)
install(EXPORT ZRVKitTargets NAMESPACE ZRVKit:: DESTINATION ${ZRV_CMAKE_DIR})
configure_package_config_file(cmake/ZRVKitConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/ZRVKitConfig.cmake INSTALL_DESTINATION ${ZRV_CMAKE_DIR})
# The same promise as the soname: a 0.x release is compatible only within its minor version.
if(PROJECT_VERSION_MAJOR EQUAL 0)
  set(ZRV_COMPATIBILITY SameMinorVersion)
else()
  set(ZRV_COMPATIBILITY SameMajorVersion)
endif()
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/ZRVKitConfigVersion.cmake
  COMPATIBILITY ${ZRV_COMPATIBILITY})
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/ZRVKitConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/ZRVKitConfigVersion.cmake
  DESTINATION ${ZRV_CMAKE_DIR})

# The pkg-config file finds its prefix from where it lies, so that an install put elsewhere with
# `cmake --install --prefix` still works.
file(RELATIVE_PATH ZRV_PC_LIBDIR "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" "${CMAKE_INSTALL_FULL_LIBDIR}")
file(RELATIVE_PATH ZRV_PC_INCLUDEDIR "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" "${CMAKE_INSTALL_FULL_INCLUDEDIR}")
configure_file(cmake/zrvkit.pc.in ${CMAKE_CURRENT_BINARY_DIR}/zrvkit.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zrvkit.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
