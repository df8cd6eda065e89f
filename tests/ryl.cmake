# The ryl tool: run directories written by hand and by the library, checked,
# summarised, turned into JSON, Perfetto, OTF2 and DOT; ryl run on the example
# programs. ryl run preloads the library into programs built without
# sanitizers, so its tests stay out of the sanitizer builds (label no_sanitizer).
if(TARGET ryl)
  find_package(nlohmann_json 3 REQUIRED)
  ryl_add_test(ryl_read_test ryl_read_test.cpp LABELS ryl LIBS nlohmann_json::nlohmann_json)
  ryl_add_test(ryl_profile_test ryl_profile_test.cpp LABELS ryl LIBS nlohmann_json::nlohmann_json)
  ryl_add_test(ryl_run_test ryl_run_test.cpp LABELS ryl no_sanitizer
               LIBS nlohmann_json::nlohmann_json ryl_perfetto_proto)
  # In the 32-bit build these cases trace system programs, which are 64-bit:
  # a 32-bit library cannot be preloaded into them.
  ryl_disable_in_32bit(ryl_run_test ryl_run.exit_statuses ryl_run.default_modes)
  foreach(_t ryl_read_test ryl_profile_test ryl_run_test)
    target_compile_definitions(${_t} PRIVATE RYL_TOOL="$<TARGET_FILE:ryl>")
    add_dependencies(${_t} ryl)
  endforeach()
  # The shapes run under ryl run, which preloads the library: not in sanitizer builds.
  if(TARGET omp_test_programs AND NOT RYL_SANITIZE)
    target_compile_definitions(ryl_profile_test PRIVATE RYL_OMP_SHAPES="${CMAKE_CURRENT_BINARY_DIR}/omp_shapes"
      RYL_TEST_PLUGIN="${CMAKE_CURRENT_BINARY_DIR}/libryl_test_plugin.so")
    add_dependencies(ryl_profile_test omp_test_programs)
  endif()
  if(TARGET threads_example)
    target_compile_definitions(ryl_run_test PRIVATE RYL_THREADS_EXAMPLE="$<TARGET_FILE:threads_example>")
    add_dependencies(ryl_run_test threads_example)
  endif()
  if(NOT TARGET omp_example)
    include(${PROJECT_SOURCE_DIR}/examples/omp.cmake)
  endif()
  get_property(_ryl_omp_example GLOBAL PROPERTY RYL_OMP_EXAMPLE)
  if(_ryl_omp_example)
    target_compile_definitions(ryl_run_test PRIVATE RYL_OMP_EXAMPLE="${_ryl_omp_example}")
    add_dependencies(ryl_run_test omp_example)
  endif()
endif()
