# Collection core and instrumentation API: byte-exact records, the collector's
# run directory and writer pool, threads, exit and unload.
ryl_add_test(core_api_test core_api_test.cpp LABELS core)
ryl_add_test(core_collector_test core_collector_test.cpp LABELS core-threads)
ryl_add_test(core_robustness_test core_robustness_test.cpp LABELS core threads)
# The same tests with every trace file written through a mapping (the children
# inherit VUN_MODE); of the robustness cases, those whose files are written in
# the inherited mode. (TEST_FILTER needs CMake 3.22.)
foreach(t core_api_test core_collector_test core_robustness_test)
  set(filter "*")
  if(t STREQUAL "core_robustness_test")
    set(filter "killed_process.*:full_disk.*:several_processes.*:fork.*:-full_disk.failed_switch_*")
  endif()
  gtest_discover_tests(${t} TEST_SUFFIX .mapped TEST_FILTER ${filter} DISCOVERY_TIMEOUT 60
    PROPERTIES ENVIRONMENT VUN_MODE=mapped LABELS core-mapped-threads TIMEOUT 300)
endforeach()
# The trace writer built into the test itself, for its claim protocol.
ryl_add_test(core_writer_test core_writer_test.cpp ${PROJECT_SOURCE_DIR}/src/trace_writer.cpp LABELS core threads)
target_compile_definitions(core_writer_test PRIVATE _FILE_OFFSET_BITS=64 _TIME_BITS=64)
# Expected records are built from the library's record catalogue.
target_include_directories(ryl_test_support PUBLIC ${PROJECT_SOURCE_DIR}/src)
