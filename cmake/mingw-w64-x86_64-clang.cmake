# Cross-builds for Windows x64 with Debian's clang and lld.
include(${CMAKE_CURRENT_LIST_DIR}/mingw-w64-x86_64.cmake)
include(${CMAKE_CURRENT_LIST_DIR}/mingw-w64-clang.cmake)
