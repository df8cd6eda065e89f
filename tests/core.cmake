# Collection core and instrumentation API: byte-exact records, the collector's
# run directory and writer pool, threads, unload, exported symbols.
ryl_add_test(core_api_test core_api_test.cpp LABELS core)
ryl_add_test(core_collector_test core_collector_test.cpp LABELS core-threads)
target_compile_definitions(core_collector_test PRIVATE RYL_NM="${CMAKE_NM}")
# The same byte-exact tests with every trace file written through a mapping.
foreach(t core_api_test core_collector_test)
  gtest_discover_tests(${t} TEST_SUFFIX .mapped DISCOVERY_TIMEOUT 60
    PROPERTIES ENVIRONMENT VUN_MODE=mapped LABELS core-mapped-threads TIMEOUT 300)
endforeach()
ryl_add_test(core_robustness_test core_robustness_test.cpp LABELS core threads)
# Expected records are built from the library's record catalogue.
target_include_directories(ryl_test_support PUBLIC ${PROJECT_SOURCE_DIR}/src)
