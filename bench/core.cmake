# Cost of the hot path: records of a thread that already has its writer.
add_executable(bench_core bench_core.cpp)
target_include_directories(bench_core PRIVATE ${PROJECT_SOURCE_DIR}/include)
target_compile_definitions(bench_core PRIVATE RYL_LIB_PATH="$<TARGET_FILE:ryl_xml>")
target_link_libraries(bench_core PRIVATE benchmark::benchmark ${CMAKE_DL_LIBS} Threads::Threads)
add_dependencies(bench_core ryl_xml)
