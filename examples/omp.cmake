# The OpenMP example, built with clang against LLVM's OpenMP runtime: GCC's
# libgomp offers no tools interface. The program is not linked with the
# library; the runtime loads it as a tool (OMP_TOOL_LIBRARIES or LD_PRELOAD).
# Position-independent, so that its code addresses use the full pointer width.
find_program(RYL_CLANG NAMES clang clang-14)
if(RYL_CLANG AND NOT TARGET omp_example)
  set(_omp_tasks ${CMAKE_CURRENT_BINARY_DIR}/omp_tasks)
  add_custom_command(OUTPUT ${_omp_tasks}
    COMMAND ${RYL_CLANG} -fopenmp -fPIE -pie -O1 -g -Wall -Wextra
            -o ${_omp_tasks} ${CMAKE_CURRENT_LIST_DIR}/omp_tasks.c
    DEPENDS ${CMAKE_CURRENT_LIST_DIR}/omp_tasks.c
    COMMENT "Building the OpenMP example with clang -fopenmp"
    VERBATIM)
  # The main job's task program: a tiled Cholesky factorisation (-lm).
  set(_omp_cholesky ${CMAKE_CURRENT_BINARY_DIR}/omp_cholesky)
  add_custom_command(OUTPUT ${_omp_cholesky}
    COMMAND ${RYL_CLANG} -fopenmp -fPIE -pie -O2 -g -Wall -Wextra
            -o ${_omp_cholesky} ${CMAKE_CURRENT_LIST_DIR}/omp_cholesky.c -lm
    DEPENDS ${CMAKE_CURRENT_LIST_DIR}/omp_cholesky.c
    COMMENT "Building the OpenMP Cholesky example with clang -fopenmp"
    VERBATIM)
  add_custom_target(omp_example ALL DEPENDS ${_omp_tasks} ${_omp_cholesky})
  set_property(GLOBAL PROPERTY RYL_OMP_EXAMPLE ${_omp_tasks})
  set_property(GLOBAL PROPERTY RYL_OMP_CHOLESKY ${_omp_cholesky})
elseif(NOT RYL_CLANG)
  message(STATUS "clang not found: the OpenMP example is not built")
endif()
