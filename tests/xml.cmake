# XML document library: tokens, parse outcomes and limits, queries, dump
# bytes, and round trips through trace files the collector writes.
# The XML objects alone, without the collector: no run directories appear.
foreach(_t xml_tokenizer_test xml_document_test xml_dump_test)
  ryl_add_test(${_t} ${_t}.cpp LABELS xml LIBS ryl_xml_document)
endforeach()

# Writes trace files through the instrumentation API in a process of its own,
# so that its collector starts with the VUN_DIR the test gives it.
add_executable(xml_trace_emitter xml_trace_emitter.cpp)
target_link_libraries(xml_trace_emitter PRIVATE ryl_xml Threads::Threads)
add_dependencies(xml_dump_test xml_trace_emitter)
target_compile_definitions(xml_dump_test PRIVATE RYL_XML_EMITTER="$<TARGET_FILE:xml_trace_emitter>")
