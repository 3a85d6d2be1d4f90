include(CMakePackageConfigHelpers)

install(TARGETS tarn EXPORT tarnTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/tarn DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT tarnTargets NAMESPACE tarn::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tarn)

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/tarnConfig.cmake.in
  ${PROJECT_BINARY_DIR}/tarnConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tarn)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/tarnConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/tarnConfig.cmake
              ${PROJECT_BINARY_DIR}/tarnConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tarn)

# The .pc file finds its prefix relative to itself, so that an install with
# `cmake --install --prefix <dir>` (or a moved tree) still points at itself.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(TARN_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
else()
  file(RELATIVE_PATH TARN_PC_UP "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
  string(REGEX REPLACE "/$" "" TARN_PC_UP "${TARN_PC_UP}")
  set(TARN_PC_PREFIX "\${pcfiledir}/${TARN_PC_UP}")
endif()
configure_file(${PROJECT_SOURCE_DIR}/cmake/tarn.pc.in ${PROJECT_BINARY_DIR}/tarn.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/tarn.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
