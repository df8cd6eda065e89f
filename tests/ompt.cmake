# OpenMP tool adapter: a fake runtime replays events record by record, and
# the OpenMP example runs under LLVM's runtimes 14 and 16 (16 only once
# tests/fetch_libomp16.sh has unpacked it into RYL_LIBOMP16_DIR).
ryl_add_test(ompt_adapter_test ompt_adapter_test.cpp ompt_support.cpp LABELS ompt threads)
target_include_directories(ompt_adapter_test PRIVATE ${PROJECT_BINARY_DIR}/omp-tools)
# In the 32-bit build these cases expect the ids of 64-bit slots and
# addresses (the fake runtime's unique ids start at 2^32), of which a 32-bit
# adapter reads the low 32 bits; ompt_32bit_test checks the translation there.
ryl_disable_in_32bit(ompt_adapter_test
  ompt_start_up.without_parallel_info_the_callbacks_region_stands
  ompt_translation.two_threads_give_the_records_of_region_and_task
  ompt_translation.dependence_direction_follows_the_type_bits
  ompt_translation.sync_region_kinds_shown_as_barriers
  ompt_translation.null_data_pointers_read_as_zero)

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
