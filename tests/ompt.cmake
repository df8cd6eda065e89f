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
