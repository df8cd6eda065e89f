# Consumer test of the installed package, run by CTest as
#   cmake -D RYL_BUILD_DIR=... -D RYL_SOURCE_DIR=... -D WORK_DIR=... [-D ...] -P check.cmake
# 1. installs the build into the temporary prefix WORK_DIR/prefix and checks
#    the layout;
# 2. builds the C and the C++ consumer against it with find_package(ryl_xml),
#    runs them and reads a finished trace file back;
# 3. builds them again with `pkg-config --cflags --libs ryl_xml` alone;
# 4. builds them with add_subdirectory of the source tree and checks that the
#    subproject added neither tests nor install rules.
# Further inputs: RYL_VERSION, RYL_EXPECT_TOOL (1 when the build has the ryl
# tool), RYL_BUILD_TYPE, RYL_GENERATOR, RYL_C_COMPILER, RYL_CXX_COMPILER,
# RYL_PKG_CONFIG, RYL_OMP_TOOLS_DIR (optional).
cmake_minimum_required(VERSION 3.21)

foreach(_var RYL_BUILD_DIR RYL_SOURCE_DIR WORK_DIR RYL_VERSION RYL_GENERATOR
             RYL_C_COMPILER RYL_CXX_COMPILER RYL_LIBDIR)
  if(NOT DEFINED ${_var})
    message(FATAL_ERROR "check.cmake: -D ${_var}=... is missing")
  endif()
endforeach()
set(consumer_src ${CMAKE_CURRENT_LIST_DIR})
set(prefix ${WORK_DIR}/prefix)
set(libdir ${prefix}/${RYL_LIBDIR})

# Runs a command; stops the test with its output when it fails.
# run(<command...> [OUTPUT <var>])
function(run)
  cmake_parse_arguments(ARG "" "OUTPUT" "" ${ARGN})
  list(JOIN ARG_UNPARSED_ARGUMENTS " " command)
  message(STATUS "> ${command}")
  execute_process(COMMAND ${ARG_UNPARSED_ARGUMENTS}
    RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "failed (${status}): ${command}\n${out}\n${err}")
  endif()
  string(STRIP "${out}" out)
  if(ARG_OUTPUT)
    set(${ARG_OUTPUT} "${out}" PARENT_SCOPE)
  elseif(NOT out STREQUAL "")
    message("${out}")
  endif()
endfunction()

# Stops the test with "expected: <text>" unless the condition holds.
# expect(<text> <condition...>)
function(expect text)
  if(${ARGN})
  else()
    message(FATAL_ERROR "expected: ${text}")
  endif()
endfunction()

# The dynamic loader resolves libryl_xml.so.0 of program to a file in dir.
function(expect_resolved_in program dir)
  run(${CMAKE_COMMAND} -E env "LD_LIBRARY_PATH=$ENV{RUN_LD_LIBRARY_PATH}" ldd ${program} OUTPUT out)
  file(REAL_PATH "${dir}" real_dir)
  if(NOT out MATCHES "libryl_xml\\.so\\.0 => ([^ \n]+)")
    message(FATAL_ERROR "${program} does not load libryl_xml.so.0:\n${out}")
  endif()
  file(REAL_PATH "${CMAKE_MATCH_1}" resolved)
  get_filename_component(resolved_dir "${resolved}" DIRECTORY)
  expect("${program} loads libryl_xml from ${real_dir}, not ${resolved}"
    resolved_dir STREQUAL real_dir)
endfunction()

# Runs both consumers of build_dir, each in a fresh run directory, checks
# that every trace file of theirs is finished and reads one back.
function(run_consumers label c_program cxx_program)
  foreach(program ${c_program} ${cxx_program})
    get_filename_component(name ${program} NAME)
    set(run_dir ${WORK_DIR}/traces/${label}/${name})
    file(MAKE_DIRECTORY ${run_dir})
    run(${CMAKE_COMMAND} -E env VUN_DIR=${run_dir} "LD_LIBRARY_PATH=$ENV{RUN_LD_LIBRARY_PATH}"
      ${program})
    file(READ ${run_dir}/_ryl.0 trace)
    expect("${run_dir}/_ryl.0 ends with </trace>" trace MATCHES "</trace>\n$")
  endforeach()
  run(${CMAKE_COMMAND} -E env "LD_LIBRARY_PATH=$ENV{RUN_LD_LIBRARY_PATH}"
    ${cxx_program} --read ${WORK_DIR}/traces/${label}/consumer_cxx/_ryl.1)
endfunction()

set(configure_args -G ${RYL_GENERATOR}
  -DCMAKE_C_COMPILER=${RYL_C_COMPILER} -DCMAKE_CXX_COMPILER=${RYL_CXX_COMPILER}
  -DCMAKE_BUILD_TYPE=${RYL_BUILD_TYPE})

file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})
set(ENV{RUN_LD_LIBRARY_PATH} "")

message(STATUS "=== install into ${prefix}")
set(config_args)
if(RYL_BUILD_TYPE)
  set(config_args --config ${RYL_BUILD_TYPE})
endif()
run(${CMAKE_COMMAND} --install ${RYL_BUILD_DIR} --prefix ${prefix} ${config_args})
set(expected_files
  ${RYL_LIBDIR}/libryl_xml.so.${RYL_VERSION}
  include/zop_minimal.h include/xml.h
  ${RYL_LIBDIR}/cmake/ryl_xml/ryl_xml-config.cmake
  ${RYL_LIBDIR}/cmake/ryl_xml/ryl_xml-config-version.cmake
  ${RYL_LIBDIR}/cmake/ryl_xml/ryl_xml-targets.cmake
  ${RYL_LIBDIR}/pkgconfig/ryl_xml.pc
  share/doc/ryl_xml/README.md)
if(RYL_EXPECT_TOOL)
  list(APPEND expected_files bin/ryl)
endif()
foreach(file IN LISTS expected_files)
  expect("${prefix}/${file} installed" EXISTS ${prefix}/${file})
endforeach()
string(REGEX MATCH "^[0-9]+" major "${RYL_VERSION}")
foreach(link_and_target "libryl_xml.so.${major}=libryl_xml.so.${RYL_VERSION}"
                        "libryl_xml.so=libryl_xml.so.${major}")
  string(REPLACE "=" ";" pair "${link_and_target}")
  list(GET pair 0 link)
  list(GET pair 1 target)
  expect("${libdir}/${link} is a symbolic link" IS_SYMLINK ${libdir}/${link})
  file(READ_SYMLINK ${libdir}/${link} actual)
  expect("${link} -> ${target}, not ${actual}" actual STREQUAL target)
endforeach()
if(RYL_EXPECT_TOOL)
  run(ldd ${prefix}/bin/ryl OUTPUT out)
  expect("every library of bin/ryl is found:\n${out}" NOT out MATCHES "not found")
endif()

message(STATUS "=== find_package(ryl_xml)")
set(build ${WORK_DIR}/find_package)
run(${CMAKE_COMMAND} -S ${consumer_src} -B ${build} ${configure_args}
  -DCMAKE_PREFIX_PATH=${prefix} OUTPUT out)
expect("the package was found in the prefix:\n${out}"
  out MATCHES "ryl_xml ${RYL_VERSION} found in ${libdir}/cmake/ryl_xml")
run(${CMAKE_COMMAND} --build ${build})
expect_resolved_in(${build}/consumer_c ${libdir})
run_consumers(find_package ${build}/consumer_c ${build}/consumer_cxx)

message(STATUS "=== pkg-config --cflags --libs ryl_xml")
set(build ${WORK_DIR}/pkg_config)
file(MAKE_DIRECTORY ${build})
set(ENV{PKG_CONFIG_PATH} ${libdir}/pkgconfig)
run(${RYL_PKG_CONFIG} --modversion ryl_xml OUTPUT version)
expect("pkg-config reports version ${RYL_VERSION}, not ${version}" version STREQUAL RYL_VERSION)
run(${RYL_PKG_CONFIG} --variable=prefix ryl_xml OUTPUT pc_prefix)
expect("the pkg-config file names the prefix ${prefix}, not ${pc_prefix}" pc_prefix STREQUAL prefix)
run(${RYL_PKG_CONFIG} --cflags --libs ryl_xml OUTPUT flags)
separate_arguments(flags UNIX_COMMAND "${flags}")
run(${RYL_C_COMPILER} -std=c99 -Wall -Wextra -pedantic -Werror
  ${consumer_src}/consumer.c ${flags} -o ${build}/consumer_c)
run(${RYL_CXX_COMPILER} -std=c++17 -Wall -Wextra -pedantic -Werror -pthread
  ${consumer_src}/consumer.cpp ${flags} -o ${build}/consumer_cxx)
set(ENV{RUN_LD_LIBRARY_PATH} ${libdir})
expect_resolved_in(${build}/consumer_c ${libdir})
run_consumers(pkg_config ${build}/consumer_c ${build}/consumer_cxx)
set(ENV{RUN_LD_LIBRARY_PATH} "")

message(STATUS "=== add_subdirectory(${RYL_SOURCE_DIR})")
set(build ${WORK_DIR}/add_subdirectory)
set(subproject_args)
if(RYL_OMP_TOOLS_DIR)
  list(APPEND subproject_args -DRYL_OMP_TOOLS_DIR=${RYL_OMP_TOOLS_DIR})
endif()
run(${CMAKE_COMMAND} -S ${consumer_src} -B ${build} ${configure_args}
  -DRYL_XML_SOURCE_DIR=${RYL_SOURCE_DIR} ${subproject_args})
run(${CMAKE_COMMAND} --build ${build})
expect_resolved_in(${build}/consumer_c ${build}/ryl_xml)
run_consumers(add_subdirectory ${build}/consumer_c ${build}/consumer_cxx)
# As a subproject ryl_xml adds no tests, examples, benchmarks, tool or
# install rules: installing the consumer installs the consumer alone.
foreach(dir tests examples bench tools)
  expect("no ${dir} in the subproject" NOT EXISTS ${build}/ryl_xml/${dir})
endforeach()
set(consumer_prefix ${WORK_DIR}/consumer_prefix)
run(${CMAKE_COMMAND} --install ${build} --prefix ${consumer_prefix})
file(GLOB_RECURSE installed RELATIVE ${consumer_prefix} ${consumer_prefix}/*)
list(SORT installed)
list(JOIN installed " " installed)
expect("the consumer's install holds only bin/consumer_c and bin/consumer_cxx, not: ${installed}"
  installed STREQUAL "bin/consumer_c bin/consumer_cxx")

message(STATUS "all consumers built and ran")
