# OpenMP tool adapter: a fake runtime replays events record by record, and
# the OpenMP example runs under LLVM's runtimes 14 and 16 (16 only once
# tests/fetch_libomp16.sh has unpacked it into RYL_LIBOMP16_DIR).
ryl_add_test(ompt_adapter_test ompt_adapter_test.cpp ompt_support.cpp LABELS ompt threads)
target_include_directories(ompt_adapter_test PRIVATE ${PROJECT_BINARY_DIR}/omp-tools)

if(NOT TARGET omp_example)
  include(${PROJECT_SOURCE_DIR}/examples/omp.cmake)
endif()
get_property(_omp_example GLOBAL PROPERTY RYL_OMP_EXAMPLE)
set(RYL_LIBOMP16_DIR ${PROJECT_BINARY_DIR}/libomp16 CACHE PATH
  "Where tests/fetch_libomp16.sh unpacked LLVM's OpenMP runtime 16")
if(_omp_example)
  ryl_add_test(ompt_runtime_test ompt_runtime_test.cpp ompt_support.cpp LABELS ompt no_sanitizer)
  target_compile_definitions(ompt_runtime_test PRIVATE
    RYL_OMP_EXAMPLE="${_omp_example}" RYL_LIBOMP16_DIR="${RYL_LIBOMP16_DIR}")
  add_dependencies(ompt_runtime_test omp_example)
else()
  message(STATUS "No OpenMP example: the tests under a real OpenMP runtime are not built")
endif()

# The detailed translation under LLVM's runtime 14, on programs of known shape
# (position-independent, with a shared object to dlopen); 64-bit only, as
# the runtime is.
if(RYL_CLANG AND NOT CMAKE_SIZEOF_VOID_P EQUAL 4)
  set(_shapes ${CMAKE_CURRENT_BINARY_DIR}/omp_shapes)
  set(_plugin ${CMAKE_CURRENT_BINARY_DIR}/libryl_test_plugin.so)
  # Also built from a relative source path, as make-based builds do: DWARF 5
  # then gives the functions of the file the file number 0.
  add_custom_command(OUTPUT ${_shapes} ${_shapes}_relative ${_plugin}
    COMMAND ${RYL_CLANG} -fopenmp -fPIE -pie -O1 -g -Wall -o ${_shapes}
            ${CMAKE_CURRENT_SOURCE_DIR}/programs/omp_shapes.c -ldl
    COMMAND ${CMAKE_COMMAND} -E chdir ${CMAKE_CURRENT_SOURCE_DIR}/programs
            ${RYL_CLANG} -fopenmp -fPIE -pie -O1 -g -Wall -o ${_shapes}_relative omp_shapes.c -ldl
    COMMAND ${RYL_CLANG} -fopenmp -shared -fPIC -g -o ${_plugin} ${CMAKE_CURRENT_SOURCE_DIR}/programs/plugin.c
    DEPENDS programs/omp_shapes.c programs/plugin.c
    COMMENT "Building the OpenMP test programs with clang -fopenmp"
    VERBATIM)
  add_custom_target(omp_test_programs ALL DEPENDS ${_shapes} ${_plugin})
  ryl_add_test(ompt_detailed_test ompt_detailed_test.cpp ompt_support.cpp LABELS ompt no_sanitizer)
  target_compile_definitions(ompt_detailed_test PRIVATE
    RYL_OMP_SHAPES="${_shapes}" RYL_TEST_PLUGIN="${_plugin}")
  add_dependencies(ompt_detailed_test omp_test_programs)
endif()
