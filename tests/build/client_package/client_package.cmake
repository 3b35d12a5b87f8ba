# Installs the client library, and builds and runs a program that finds it with find_package().
#   cmake -DBUILD=… -DWORK=… -DTOOLCHAIN=… -DSOURCE=… -DEMULATOR=… -P client_package.cmake
include(${CMAKE_CURRENT_LIST_DIR}/../run.cmake)

file(REMOVE_RECURSE ${WORK})
run(${CMAKE_COMMAND} --install ${BUILD} --component client --prefix ${WORK}/prefix)

# What is installed is what its users need, and nothing of the service.
file(GLOB_RECURSE headers RELATIVE ${WORK}/prefix ${WORK}/prefix/*.h)
if(NOT headers STREQUAL "include/orvik/client.h")
  message(FATAL_ERROR "these headers were installed: ${headers}")
endif()
file(STRINGS ${WORK}/prefix/lib/cmake/OrvikClient/OrvikClientConfig.cmake builtHere
     REGEX "${BUILD}")
if(builtHere)
  message(FATAL_ERROR "the package names the folder that it was built in: ${builtHere}")
endif()

run(${CMAKE_COMMAND} -S ${CMAKE_CURRENT_LIST_DIR} -B ${WORK}/build -G Ninja
    -DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN} -DOrvikClient_DIR=${WORK}/prefix/lib/cmake/OrvikClient
    -DSOURCE=${SOURCE})
run(${CMAKE_COMMAND} --build ${WORK}/build)

execute_process(COMMAND ${EMULATOR} ${WORK}/build/cameras.exe RESULT_VARIABLE result
                OUTPUT_VARIABLE output ERROR_VARIABLE output)
if(NOT result EQUAL 1 OR NOT output MATCHES "error: the service OrvikService is not installed")
  message(FATAL_ERROR "the program returned ${result} and said: ${output}")
endif()
