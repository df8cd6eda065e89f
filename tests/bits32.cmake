# Tests that only mean something in a 32-bit process (the build of
# cmake/toolchain-i386.cmake): addresses at or above 2^31 recorded
# sign-extended, a failing sched_getcpu and 32-bit metadata values. (The
# OpenMP adapter's ids from 32-bit slots and addresses, zero-extended, are
# checked by ompt_adapter_test, whose cases all run in this build too.)
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  ryl_add_test(core_32bit_test core_32bit_test.cpp LABELS core)
  # The program's own sched_getcpu must be in its dynamic symbol table, so
  # that the library's call binds to it.
  target_link_options(core_32bit_test PRIVATE -Wl,--export-dynamic-symbol=sched_getcpu)
endif()

# ryl_disable_in_32bit(<target> <case>...): in the 32-bit build the named
# cases of a test program show as disabled; elsewhere nothing. For the
# fragments that sort after this one.
function(ryl_disable_in_32bit target)
  if(NOT CMAKE_SIZEOF_VOID_P EQUAL 4)
    return()
  endif()
  set(file ${CMAKE_CURRENT_BINARY_DIR}/${target}_32bit.cmake)
  file(WRITE ${file}
    "set(_cases \"${ARGN}\")\n"
    "foreach(_t IN LISTS ${target}_TESTS)\n"
    "  list(FIND _cases \"\${_t}\" _i)\n"
    "  if(NOT _i EQUAL -1)\n"
    "    set_tests_properties(\"\${_t}\" PROPERTIES DISABLED TRUE)\n"
    "  endif()\n"
    "endforeach()\n")
  set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES ${file})
endfunction()
