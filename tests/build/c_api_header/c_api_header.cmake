# orvik.h compiles as C99, C17 and C++20 with GCC and Clang, without a warning, and a program links with
# the import library for MSVC, and runs.
#   cmake -DINCLUDE=… -DLIBRARY=… -DDLL=… -DEMULATOR=… -DWORK=… -P c_api_header.cmake
# The compilers are those of Debian; one that is not there is left out, but not all of them.
include(${CMAKE_CURRENT_LIST_DIR}/../run.cmake)

file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK})
set(program ${CMAKE_CURRENT_LIST_DIR}/program.c)
# Clang's target of MSVC has no headers here but the compiler's own, which are enough.
set(clang --target=x86_64-pc-windows-msvc -ffreestanding)
set(gcc)
find_program(gcc_program NAMES x86_64-w64-mingw32-gcc-posix gcc)
find_program(clang_program NAMES clang)
set(compiled 0)
foreach(compiler gcc clang)
  if(NOT ${compiler}_program)
    continue()
  endif()
  foreach(standard c99 c17 c++20)
    set(language c)
    if(standard STREQUAL "c++20")
      set(language c++)
    endif()
    run(${${compiler}_program} ${${compiler}} -x ${language} -std=${standard} -Wall -Wextra -pedantic
        -Werror -I ${INCLUDE} -fsyntax-only ${program})
    math(EXPR compiled "${compiled} + 1")
  endforeach()
endforeach()
if(NOT compiled)
  message(FATAL_ERROR "no compiler was found")
endif()

find_program(lld_link NAMES lld-link)
if(clang_program AND lld_link AND EXISTS ${LIBRARY}) # client_package_test requires it on Debian
  run(${clang_program} ${clang} -std=c99 -I ${INCLUDE} -c ${program} -o ${WORK}/program.obj)
  run(${lld_link} /entry:main /subsystem:console /nodefaultlib /out:${WORK}/program.exe
      ${WORK}/program.obj ${LIBRARY})
  file(COPY ${DLL} DESTINATION ${WORK})
  run(${EMULATOR} ${WORK}/program.exe)
endif()
