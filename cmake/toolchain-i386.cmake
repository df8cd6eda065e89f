# 32-bit (i386) build on an x86-64 Debian host with g++-multilib:
#   cmake -S . -B build-32 -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-i386.cmake
# The host compilers build and link for 32 bits with -m32; the programs run
# directly on the 64-bit kernel. CMake then searches libraries in the 32-bit
# directories (lib32, and i386-linux-gnu for Debian's i386 packages).
set(CMAKE_C_FLAGS_INIT -m32)
set(CMAKE_CXX_FLAGS_INIT -m32)
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)
