# Tests that only mean something in a 32-bit process (the build of
# cmake/toolchain-i386.cmake): addresses at or above 2^31 recorded
# sign-extended, a failing sched_getcpu, 32-bit metadata values, and the
# OpenMP adapter's ids from 32-bit slots and addresses, zero-extended.
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  ryl_add_test(core_32bit_test core_32bit_test.cpp LABELS core)
  # The program's own sched_getcpu must be in its dynamic symbol table, so
  # that the library's call binds to it.
  target_link_options(core_32bit_test PRIVATE -Wl,--export-dynamic-symbol=sched_getcpu)
  ryl_add_test(ompt_32bit_test ompt_32bit_test.cpp ompt_support.cpp LABELS ompt)
  target_include_directories(ompt_32bit_test PRIVATE ${PROJECT_BINARY_DIR}/omp-tools)
endif()
