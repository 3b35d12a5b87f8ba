# orvik_client_abi(result): what a library and the program that links it must have in common, in words.
function(orvik_client_abi result)
  set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
  set(folder ${CMAKE_CURRENT_BINARY_DIR}/CMakeFiles/OrvikClient)
  try_compile(
    compiled ${folder} SOURCES ${CMAKE_CURRENT_FUNCTION_LIST_DIR}/abi.cpp
    OUTPUT_VARIABLE output COPY_FILE ${folder}/abi.lib)
  if(NOT compiled)
    message(FATAL_ERROR "abi.cpp, which shows the kind of the compiler, does not compile:\n${output}")
  endif()
  file(STRINGS ${folder}/abi.lib text REGEX "orvik-abi:")
  string(REGEX MATCH "orvik-abi:([^!]*)" text "${text}")
  set(${result} ${CMAKE_MATCH_1} PARENT_SCOPE)
  unset(compiled CACHE) # asked anew each time
endfunction()
