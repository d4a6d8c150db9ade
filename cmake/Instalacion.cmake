# What `cmake --install` puts under the prefix:
#   lib/libcodpostales.so                  the library (engine core inside)
#   bin/codpostales                        the command-line tool
#   include/codpostales/...                every header under src/, same layout
#   lib/cmake/CodPostales/                 CodPostalesConfig.cmake, its version
#                                          file and the CodPostales::codpostales target
#   lib/pkgconfig/codpostales.pc           for hosts built without CMake
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(CODPOSTALES_QT_MINIMO 6.4)
set(CODPOSTALES_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/CodPostales)

target_compile_features(codpostales INTERFACE cxx_std_17)
if(CODPOSTALES_SANITIZE)
  # A sanitized library only loads into a program linked with the runtimes.
  target_link_options(codpostales INTERFACE $<INSTALL_INTERFACE:-fsanitize=address,undefined>)
  set(CODPOSTALES_PC_LIBS_EXTRA " -fsanitize=address,undefined")
endif()

install(TARGETS codpostales EXPORT CodPostalesTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/codpostales)
# Installed beside the library: lib/ is found from bin/.
set_target_properties(codpostales-cli PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
install(TARGETS codpostales-cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
# Read when installing, so a header added since the configure goes too.
install(DIRECTORY ${PROJECT_SOURCE_DIR}/src/
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/codpostales
  FILES_MATCHING PATTERN "*.h")
install(EXPORT CodPostalesTargets
  NAMESPACE CodPostales::
  DESTINATION ${CODPOSTALES_CMAKE_DIR})

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/CodPostalesConfig.cmake.in
  ${PROJECT_BINARY_DIR}/cmake/CodPostalesConfig.cmake
  INSTALL_DESTINATION ${CODPOSTALES_CMAKE_DIR})
# Still 0.x: a new minor version may change the interface.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/cmake/CodPostalesConfigVersion.cmake
  VERSION ${PROJECT_VERSION}
  COMPATIBILITY SameMinorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/cmake/CodPostalesConfig.cmake
  ${PROJECT_BINARY_DIR}/cmake/CodPostalesConfigVersion.cmake
  DESTINATION ${CODPOSTALES_CMAKE_DIR})

# Relocatable: the prefix is found from where the file lies, so it holds
# for whatever `cmake --install --prefix` says.
file(RELATIVE_PATH CODPOSTALES_PC_SUBIDA /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" CODPOSTALES_PC_SUBIDA "${CODPOSTALES_PC_SUBIDA}")
set(CODPOSTALES_PC_PREFIX "\${pcfiledir}/${CODPOSTALES_PC_SUBIDA}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/codpostales.pc.in ${PROJECT_BINARY_DIR}/cmake/codpostales.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/cmake/codpostales.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
