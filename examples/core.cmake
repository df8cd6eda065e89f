# A threaded program instrumented through the API, linked with the library.
add_executable(threads_example threads_example.cpp)
target_link_libraries(threads_example PRIVATE ryl_xml Threads::Threads)
