# Cross-builds for Windows x64 with Debian's mingw-w64.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

# The posix thread model: the win32 one lacks std::thread and std::mutex in GCC 12.
set(CMAKE_C_COMPILER x86_64-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER x86_64-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)

# Packages, headers and libraries come from the dependency prefix, the cross compiler's own folder and
# the folders that CMAKE_PREFIX_PATH names, never from the host.
if(DEFINED ENV{ORVIK_DEPS})
  set(ORVIK_DEPS $ENV{ORVIK_DEPS})
else()
  set(ORVIK_DEPS ${CMAKE_CURRENT_LIST_DIR}/../build/deps)
endif()
set(CMAKE_FIND_ROOT_PATH ${CMAKE_PREFIX_PATH} ${ORVIK_DEPS} /usr/x86_64-w64-mingw32)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# CTest starts the tests with it.
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/../scripts/wine)
