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

# The Python package, installed beside the library it loads: a generated
# _install.py holds the library's path relative to the package, so a moved
# prefix still works. The default directory is one the interpreter found
# here searches when the prefix is its own or /usr/local.
option(TARN_INSTALL_PYTHON "Install the Python package with the library" ON)
if(TARN_INSTALL_PYTHON)
  if(NOT TARN_PYTHON_INSTALL_DIR)
    set(TARN_PYTHON_DEFAULT "lib/python3/dist-packages")
    find_package(Python3 COMPONENTS Interpreter QUIET)
    if(Python3_FOUND)
      execute_process(COMMAND ${Python3_EXECUTABLE} -c
        "import os, sys, sysconfig; print('lib/python%d.%d/%s' % (sys.version_info[:2] + (os.path.basename(sysconfig.get_path('purelib')),)))"
        OUTPUT_VARIABLE TARN_PYTHON_DEFAULT OUTPUT_STRIP_TRAILING_WHITESPACE)
    endif()
    set(TARN_PYTHON_INSTALL_DIR "${TARN_PYTHON_DEFAULT}" CACHE STRING
      "Where the tarn Python package goes, relative to the prefix")
  endif()
  set(TARN_PKG_DIR "${TARN_PYTHON_INSTALL_DIR}/tarn")
  set(TARN_LIB_DIR "${CMAKE_INSTALL_LIBDIR}")
  foreach(dir TARN_PKG_DIR TARN_LIB_DIR)
    if(NOT IS_ABSOLUTE "${${dir}}")
      set(${dir} "/prefix/${${dir}}")
    endif()
  endforeach()
  file(RELATIVE_PATH TARN_PY_LIB "${TARN_PKG_DIR}"
       "${TARN_LIB_DIR}/libtarn.so.${PROJECT_VERSION_MAJOR}")
  file(WRITE ${PROJECT_BINARY_DIR}/python/_install.py
       "# Written by the CMake install: libtarn.so relative to this package.\nLIBRARY = \"${TARN_PY_LIB}\"\n")
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/python/tarn/ DESTINATION ${TARN_PYTHON_INSTALL_DIR}/tarn
    FILES_MATCHING PATTERN "*.py" PATTERN "__pycache__" EXCLUDE)
  install(FILES ${PROJECT_BINARY_DIR}/python/_install.py
    DESTINATION ${TARN_PYTHON_INSTALL_DIR}/tarn)
endif()
