# Cross-builds the client library for 32-bit Windows with Debian's clang and lld.
include(${CMAKE_CURRENT_LIST_DIR}/mingw-w64-i686.cmake)
include(${CMAKE_CURRENT_LIST_DIR}/mingw-w64-clang.cmake)
