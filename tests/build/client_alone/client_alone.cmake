# Builds the client library alone, first as a project of its own, then with add_subdirectory(). The
# prefix of the dependencies is empty, so that Boost, Breakpad, CLI11 and GoogleTest cannot be found.
#   cmake -DWORK=… -DCLIENT=… -DEMULATOR=… -DCOMPILER=… -DTOOLCHAINS32=… -P client_alone.cmake
# COMPILER is the cache file of CMakeLists.txt beside run.cmake. TOOLCHAINS32, which may be empty, are tool
# chain files for 32 bits.
include(${CMAKE_CURRENT_LIST_DIR}/../run.cmake)

function(build source folder)
  run(${CMAKE_COMMAND} -S ${source} -B ${folder} -G Ninja -DCMAKE_EXPORT_COMPILE_COMMANDS=ON ${ARGN})
  run(${CMAKE_COMMAND} --build ${folder})
endfunction()

file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK}/empty)
set(ENV{ORVIK_DEPS} ${WORK}/empty)
build(${CLIENT} ${WORK}/alone -C ${COMPILER} -DORVIK_CLIENT_EXAMPLES=OFF)
build(${CMAKE_CURRENT_LIST_DIR} ${WORK}/subdirectory -C ${COMPILER} -DCLIENT=${CLIENT})

execute_process(COMMAND ${EMULATOR} ${WORK}/subdirectory/cameras.exe RESULT_VARIABLE result
                OUTPUT_VARIABLE output ERROR_VARIABLE output)
if(NOT result EQUAL 1 OR NOT output MATCHES "error: the service OrvikService is not installed")
  message(FATAL_ERROR "the program returned ${result} and said: ${output}")
endif()

# The flags of this tree, which make warnings errors, are not for other projects.
file(STRINGS ${WORK}/subdirectory/compile_commands.json flags REGEX "-Werror|-Wall")
if(flags)
  message(FATAL_ERROR "the flags of this tree are passed to another project: ${flags}")
endif()

# 32 bits, without a warning.
set(ENV{CXXFLAGS} "-Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror")
foreach(toolchain ${TOOLCHAINS32})
  cmake_path(GET toolchain STEM name)
  set(dll ON)
  if(name MATCHES "clang") # its linker does not take Debian's 32-bit libstdc++
    set(dll OFF)
  endif()
  build(${CLIENT} ${WORK}/${name} -DCMAKE_TOOLCHAIN_FILE=${toolchain} -DORVIK_CLIENT_EXAMPLES=OFF
        -DORVIK_CLIENT_DLL=${dll})
endforeach()
