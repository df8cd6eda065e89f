# Consumer test of the installed package: installs the build into a
# temporary prefix, then builds and runs a C and a C++ program against it
# through find_package, through pkg-config and through add_subdirectory.
# Only with the install rules (RYL_INSTALL), and not in sanitizer builds:
# programs built without the sanitizer could not load such a library. Nor in
# the 32-bit build: the consumers are configured with the compilers' default
# (64-bit) flags and could not link a 32-bit library.
if(CMAKE_SIZEOF_VOID_P EQUAL 4 AND RYL_INSTALL AND NOT RYL_SANITIZE)
  message(STATUS "32-bit build: the install consumer test is not built")
elseif(RYL_INSTALL AND NOT RYL_SANITIZE)
  find_program(RYL_PKG_CONFIG NAMES pkg-config pkgconf)
  if(RYL_PKG_CONFIG)
    add_test(NAME install_consumers
      COMMAND ${CMAKE_COMMAND}
        -D RYL_BUILD_DIR=${PROJECT_BINARY_DIR}
        -D RYL_SOURCE_DIR=${PROJECT_SOURCE_DIR}
        -D WORK_DIR=${CMAKE_CURRENT_BINARY_DIR}/install_consumers
        -D RYL_VERSION=${PROJECT_VERSION}
        -D RYL_LIBDIR=${CMAKE_INSTALL_LIBDIR}
        -D RYL_EXPECT_TOOL=$<TARGET_EXISTS:ryl>
        -D RYL_BUILD_TYPE=$<CONFIG>
        "-D" "RYL_GENERATOR=${CMAKE_GENERATOR}"
        -D RYL_C_COMPILER=${CMAKE_C_COMPILER}
        -D RYL_CXX_COMPILER=${CMAKE_CXX_COMPILER}
        -D RYL_PKG_CONFIG=${RYL_PKG_CONFIG}
        -D RYL_OMP_TOOLS_DIR=${RYL_OMP_TOOLS_DIR}
        -P ${CMAKE_CURRENT_SOURCE_DIR}/install_consumer/check.cmake)
    set_tests_properties(install_consumers PROPERTIES LABELS install TIMEOUT 900)
  else()
    message(STATUS "pkg-config not found: the install consumer test is not built")
  endif()
endif()
