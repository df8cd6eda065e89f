# CPack settings (included from the top-level CMakeLists.txt when RYL_INSTALL
# is on). `cpack -G DEB` in the build directory builds ryl-xml_<version>_<arch>.deb,
# which puts the installed files under /usr.
set(CPACK_PACKAGE_NAME ryl-xml)
set(CPACK_PACKAGE_VENDOR "ryl_xml maintainers")
set(CPACK_PACKAGE_CONTACT "ryl_xml maintainers <maintainers@users.noreply.c-seed-2993403b.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGE_DESCRIPTION
  "libryl_xml.so records what a program's threads report through its C\n\
instrumentation API or through the OpenMP tools interface into one trace\n\
file per thread. With the headers, a CMake package, a pkg-config file and\n\
the ryl command-line tool.")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_RESOURCE_FILE_README ${PROJECT_SOURCE_DIR}/README.md)
set(CPACK_GENERATOR DEB)
# Staged with DESTDIR under the prefix /usr, so that the install-time
# pkg-config file names /usr rather than the staging directory.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_SOURCE_GENERATOR TGZ)
set(CPACK_SOURCE_IGNORE_FILES "/\\\\.git/" "/build[^/]*/" "/_vun_[^/]*/" "\\\\.swp$")

set(CPACK_DEBIAN_PACKAGE_NAME ryl-xml)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# A shlibs file, and ldconfig run after installing and removing, so that the
# dynamic loader finds libryl_xml.so by name right after dpkg -i.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
# Dependencies from the binaries' needs where dpkg-shlibdeps (dpkg-dev) is
# available, otherwise the libraries every build links.
find_program(RYL_DPKG_SHLIBDEPS dpkg-shlibdeps)
mark_as_advanced(RYL_DPKG_SHLIBDEPS)
if(RYL_DPKG_SHLIBDEPS)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
else()
  set(CPACK_DEBIAN_PACKAGE_DEPENDS "libc6, libstdc++6, libgcc-s1")
endif()

include(CPack)
