# Parsing a generated 50 MB trace file with the XML library, next to the
# established parsers that are installed (each optional).
#
# The XML source is built into a shared library of its own with the flags of
# libryl_xml.so (position-independent, hidden visibility), so the code measured
# is compiled as shipped, while the collector of libryl_xml.so, which creates a
# run directory whenever it is loaded, stays out of the benchmark.
add_library(bench_xml_library SHARED ${PROJECT_SOURCE_DIR}/src/xml.cpp ${PROJECT_SOURCE_DIR}/src/xml_queries.cpp
  ${PROJECT_SOURCE_DIR}/src/xml_dump.cpp)
target_include_directories(bench_xml_library PUBLIC ${PROJECT_SOURCE_DIR}/include)
set_target_properties(bench_xml_library PROPERTIES CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)

add_executable(bench_xml bench_xml.cpp)
target_link_libraries(bench_xml PRIVATE bench_xml_library benchmark::benchmark)

find_package(pugixml CONFIG QUIET)
if(TARGET pugixml::pugixml)
  target_link_libraries(bench_xml PRIVATE pugixml::pugixml)
  target_compile_definitions(bench_xml PRIVATE HAVE_PUGIXML)
endif()
find_package(tinyxml2 CONFIG QUIET)
if(TARGET tinyxml2::tinyxml2)
  target_link_libraries(bench_xml PRIVATE tinyxml2::tinyxml2)
  target_compile_definitions(bench_xml PRIVATE HAVE_TINYXML2)
endif()
find_package(LibXml2 QUIET)
if(TARGET LibXml2::LibXml2)
  target_link_libraries(bench_xml PRIVATE LibXml2::LibXml2)
  target_compile_definitions(bench_xml PRIVATE HAVE_LIBXML2)
endif()
find_package(EXPAT QUIET)
if(TARGET EXPAT::EXPAT)
  target_link_libraries(bench_xml PRIVATE EXPAT::EXPAT)
  target_compile_definitions(bench_xml PRIVATE HAVE_EXPAT)
endif()
