# Collection core and instrumentation API: byte-exact records, the collector's
# run directory and writer pool, threads, unload, exported symbols.
ryl_add_test(core_api_test core_api_test.cpp LABELS core)
ryl_add_test(core_collector_test core_collector_test.cpp LABELS core-threads)
target_compile_definitions(core_collector_test PRIVATE RYL_NM="${CMAKE_NM}")
