# Installs the client library, builds and runs a program that finds it as docs/client.md says, and
# shows that the package refuses a compiler that it was not built for.
#   cmake -DBUILD=… -DWORK=… -DSOURCE=… -DEMULATOR=… -DCOMPILER=… -DOTHER_TOOLCHAIN=… -P client_package.cmake
# COMPILER is the cache file of CMakeLists.txt beside run.cmake. OTHER_TOOLCHAIN, which may be empty,
# compiles for another architecture.
include(${CMAKE_CURRENT_LIST_DIR}/../run.cmake)

file(REMOVE_RECURSE ${WORK})
run(${CMAKE_COMMAND} --install ${BUILD} --component client --prefix ${WORK}/prefix)

# What is installed is what its users need, and nothing of the service.
file(GLOB_RECURSE headers RELATIVE ${WORK}/prefix ${WORK}/prefix/*.h)
if(NOT headers STREQUAL "include/orvik/client.h;include/orvik/orvik.h;include/orvik/persistent_client.h")
  message(FATAL_ERROR "these headers were installed: ${headers}")
endif()
set(package ${WORK}/prefix/lib/cmake/OrvikClient)
file(GLOB files ${package}/*.cmake)
foreach(file ${files})
  file(STRINGS ${file} builtHere REGEX "${BUILD}")
  if(builtHere)
    message(FATAL_ERROR "${file} names the folder that the library was built in: ${builtHere}")
  endif()
endforeach()

set(configure ${CMAKE_COMMAND} -S ${CMAKE_CURRENT_LIST_DIR} -G Ninja -DSOURCE=${SOURCE}
              -DCMAKE_PREFIX_PATH=${WORK}/prefix)
run(${configure} -B ${WORK}/build -C ${COMPILER})
run(${CMAKE_COMMAND} --build ${WORK}/build)

execute_process(COMMAND ${EMULATOR} ${WORK}/build/cameras.exe RESULT_VARIABLE result
                OUTPUT_VARIABLE output ERROR_VARIABLE output)
if(NOT result EQUAL 1 OR NOT output MATCHES "error: the service OrvikService is not installed")
  message(FATAL_ERROR "the program returned ${result} and said: ${output}")
endif()

# The C interface, for a C compiler that knows nothing of CMake.
find_program(gcc x86_64-w64-mingw32-gcc-posix)
if(gcc)
  find_program(pkg_config pkg-config REQUIRED)
  set(ENV{PKG_CONFIG_PATH} ${WORK}/prefix/lib/pkgconfig)
  run(${pkg_config} --cflags --libs orvik)
  separate_arguments(flags UNIX_COMMAND "${output}")
  cmake_path(REPLACE_FILENAME SOURCE first.c OUTPUT_VARIABLE first)
  run(${gcc} -std=c99 ${first} ${flags} -o ${WORK}/prefix/bin/first.exe)
  execute_process(COMMAND ${EMULATOR} ${WORK}/prefix/bin/first.exe RESULT_VARIABLE result
                  OUTPUT_VARIABLE output ERROR_VARIABLE output)
  if(NOT result EQUAL 1 OR NOT output MATCHES "error: the service OrvikService is not installed")
    message(FATAL_ERROR "the program in C returned ${result} and said: ${output}")
  endif()
endif()
if(NOT EXISTS ${WORK}/prefix/lib/orvik.lib AND OTHER_TOOLCHAIN) # Debian has llvm-dlltool
  message(FATAL_ERROR "the import library for MSVC was not installed")
endif()

# refuses(folder message option...): the configuration fails with this message.
function(refuses folder message)
  execute_process(COMMAND ${configure} -B ${WORK}/${folder} ${ARGN} RESULT_VARIABLE result
                  OUTPUT_VARIABLE output ERROR_VARIABLE output)
  string(REGEX REPLACE "[ \n]+" " " output "${output}") # CMake breaks its lines
  if(result EQUAL 0 OR NOT output MATCHES "${message}")
    message(FATAL_ERROR "not refused with \"${message}\", but: ${output}")
  endif()
endfunction()
if(OTHER_TOOLCHAIN)
  refuses(other_architecture "was built by .* for x64, but this project is compiled by .* for x86"
          -DCMAKE_TOOLCHAIN_FILE=${OTHER_TOOLCHAIN})
endif()
file(READ ${package}/OrvikClientConfig.cmake text)
string(REGEX REPLACE "(STREQUAL \"|built by )M[^\"]* for" "\\1another compiler for" text "${text}")
file(WRITE ${package}/OrvikClientConfig.cmake "${text}")
refuses(other_compiler "was built by another compiler for x64, but this project is compiled by M"
        -C ${COMPILER})
