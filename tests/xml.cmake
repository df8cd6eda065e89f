# XML document library: tokens, parse outcomes and limits, queries, dump
# bytes, and round trips through trace files the collector writes.
foreach(_t xml_tokenizer_test xml_document_test xml_dump_test)
  ryl_add_test(${_t} ${_t}.cpp LABELS xml LIBS ryl_xml)
endforeach()

# Writes trace files through the instrumentation API in a process of its own,
# so that its collector starts with the VUN_DIR the test gives it.
add_executable(xml_trace_emitter xml_trace_emitter.cpp)
target_link_libraries(xml_trace_emitter PRIVATE ryl_xml Threads::Threads)
add_dependencies(xml_dump_test xml_trace_emitter)
target_compile_definitions(xml_dump_test PRIVATE RYL_XML_EMITTER="$<TARGET_FILE:xml_trace_emitter>")

# The test programs link the library, whose collector creates a run directory
# whenever a program starts; collect those under one directory of the build
# instead of a new one per test in the working directory.
set(_xml_runs ${CMAKE_CURRENT_BINARY_DIR}/xml_test_runs)
file(MAKE_DIRECTORY ${_xml_runs})
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/xml_test_env.cmake
  "foreach(_t IN LISTS xml_tokenizer_test_TESTS xml_document_test_TESTS xml_dump_test_TESTS)\n"
  "  set_tests_properties(\"\${_t}\" PROPERTIES ENVIRONMENT \"VUN_DIR=${_xml_runs}\")\n"
  "endforeach()\n")
set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES ${CMAKE_CURRENT_BINARY_DIR}/xml_test_env.cmake)
