# Cross-builds with Debian's clang and lld, after the tool chain file of GCC for the same processor. The
# C++ library, the C runtime and the headers are those of Debian's mingw-w64 with GCC, so that libraries
# built by either compiler link together.
set(triple ${CMAKE_SYSTEM_PROCESSOR}-w64-mingw32)

# GCC's own folder: its version is in the path.
execute_process(
  COMMAND ${CMAKE_CXX_COMPILER} -print-libgcc-file-name
  OUTPUT_VARIABLE gcc
  OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
cmake_path(GET gcc PARENT_PATH gcc)

set(CMAKE_C_COMPILER clang)
set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_C_COMPILER_TARGET ${triple})
set(CMAKE_CXX_COMPILER_TARGET ${triple})
set(CMAKE_AR llvm-ar)
set(CMAKE_RANLIB llvm-ranlib)

# The host's headers are out of reach. The C runtime's headers come after clang's own, as with GCC. The
# C++ library has its thread-local variables in the form that only GCC uses by default.
set(CMAKE_C_FLAGS_INIT "-nostdlibinc -idirafter /usr/${triple}/include -femulated-tls")
set(CMAKE_CXX_FLAGS_INIT
    "${CMAKE_C_FLAGS_INIT} -isystem ${gcc}/include/c++ -isystem ${gcc}/include/c++/${triple}")
# GCC's driver adds the threads library by itself. The flags of the compiler are given to the linker's
# driver too, which has no use for all of them. The dependencies have a libstdc++ for lld.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-fuse-ld=lld -B${gcc} -L${gcc} -lpthread -Qunused-arguments")
if(DEFINED ORVIK_DEPS)
  string(PREPEND CMAKE_EXE_LINKER_FLAGS_INIT "-L${ORVIK_DEPS}/lib/lld ")
endif()
set(CMAKE_SHARED_LINKER_FLAGS_INIT ${CMAKE_EXE_LINKER_FLAGS_INIT})
set(CMAKE_MODULE_LINKER_FLAGS_INIT ${CMAKE_EXE_LINKER_FLAGS_INIT})
