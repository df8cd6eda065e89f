# Time and peak memory of ryl on a run directory of a given size (1 GB by
# default), written afresh under BENCH_DIR or the temporary directory.
if(TARGET ryl)
  add_executable(bench_ryl bench_ryl.cpp)
  target_compile_definitions(bench_ryl PRIVATE RYL_TOOL="$<TARGET_FILE:ryl>")
  add_dependencies(bench_ryl ryl)
endif()
