# Install rules (included from the top-level CMakeLists.txt when RYL_INSTALL
# is on). Two components:
#   ryl_xml_runtime      the library with all its names, the ryl tool, the README
#   ryl_xml_development  the headers, the CMake package and the pkg-config file
# The unversioned libryl_xml.so belongs to the runtime: programs, LD_PRELOAD
# and OMP_TOOL_LIBRARIES load the collector under that name.
include(CMakePackageConfigHelpers)

set(RYL_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/ryl_xml
  CACHE STRING "Where the CMake package files go, relative to the prefix")
mark_as_advanced(RYL_INSTALL_CMAKEDIR)

set_target_properties(ryl_xml PROPERTIES EXPORT_NAME ryl_xml)
install(TARGETS ryl_xml EXPORT ryl_xml-targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    COMPONENT ryl_xml_runtime NAMELINK_COMPONENT ryl_xml_runtime)
install(FILES ${PROJECT_SOURCE_DIR}/include/zop_minimal.h ${PROJECT_SOURCE_DIR}/include/xml.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT ryl_xml_development)
install(FILES ${PROJECT_SOURCE_DIR}/README.md
  DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT ryl_xml_runtime)

# CMake package: find_package(ryl_xml) gives the imported target
# ryl_xml::ryl_xml. The files locate the prefix relative to themselves.
install(EXPORT ryl_xml-targets NAMESPACE ryl_xml::
  DESTINATION ${RYL_INSTALL_CMAKEDIR} COMPONENT ryl_xml_development)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/ryl_xml-config.cmake.in
  ${PROJECT_BINARY_DIR}/cmake/ryl_xml-config.cmake
  INSTALL_DESTINATION ${RYL_INSTALL_CMAKEDIR})
# The soname carries only the major version, so any release with the same
# major version is a valid answer to find_package(ryl_xml <version>).
write_basic_package_version_file(${PROJECT_BINARY_DIR}/cmake/ryl_xml-config-version.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/cmake/ryl_xml-config.cmake
              ${PROJECT_BINARY_DIR}/cmake/ryl_xml-config-version.cmake
  DESTINATION ${RYL_INSTALL_CMAKEDIR} COMPONENT ryl_xml_development)

# pkg-config file. It is written at install time, so that it names the prefix
# actually installed to: `cmake --install build --prefix P` gives prefix=P,
# the Debian package prefix=/usr.
install(CODE "
  set(RYL_PC_TEMPLATE [[${PROJECT_SOURCE_DIR}/cmake/ryl_xml.pc.in]])
  set(RYL_PC_STAGE_DIR [[${PROJECT_BINARY_DIR}/pkgconfig]])
  set(RYL_PC_DESCRIPTION [[${PROJECT_DESCRIPTION}]])
  set(RYL_PC_VERSION [[${PROJECT_VERSION}]])
  set(RYL_PC_LIBDIR [[${CMAKE_INSTALL_LIBDIR}]])
  set(RYL_PC_INCLUDEDIR [[${CMAKE_INSTALL_INCLUDEDIR}]])
  include([[${PROJECT_SOURCE_DIR}/cmake/ryl_xml_pkgconfig.cmake]])
" COMPONENT ryl_xml_development)
