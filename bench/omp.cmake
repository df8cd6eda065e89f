# Cost of tracing OpenMP tasks: BOTS-style fib, untraced and under both
# translations (bench_omp [--benchmark_repetitions=N] [n]).
find_program(RYL_CLANG NAMES clang clang-14)
if(RYL_CLANG AND NOT CMAKE_SIZEOF_VOID_P EQUAL 4)
  set(_omp_fib ${CMAKE_CURRENT_BINARY_DIR}/omp_fib)
  add_custom_command(OUTPUT ${_omp_fib}
    COMMAND ${RYL_CLANG} -fopenmp -O2 -g -o ${_omp_fib} ${CMAKE_CURRENT_SOURCE_DIR}/omp_fib.c
    DEPENDS omp_fib.c
    COMMENT "Building the OpenMP fib benchmark program with clang -fopenmp"
    VERBATIM)
  add_custom_target(omp_fib_program ALL DEPENDS ${_omp_fib})
  add_executable(bench_omp bench_omp.cpp)
  target_compile_definitions(bench_omp PRIVATE RYL_LIB_PATH="$<TARGET_FILE:ryl_xml>"
    RYL_OMP_FIB="${_omp_fib}")
  target_link_libraries(bench_omp PRIVATE benchmark::benchmark)
  add_dependencies(bench_omp ryl_xml omp_fib_program)
endif()
