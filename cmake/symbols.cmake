# orvik_split_symbols(target): keeps the target's debug information in a file of its own beside it,
# target.exe.debug, which the tools of GNU find by the target's name. What ships stays small.
# (MSVC does this by itself, with PDB files.)
function(orvik_split_symbols target)
  if(MSVC)
    return()
  endif()
  add_custom_command(
    TARGET ${target}
    POST_BUILD
    COMMAND ${CMAKE_OBJCOPY} --only-keep-debug $<TARGET_FILE:${target}>
            $<TARGET_FILE:${target}>.debug
    COMMAND ${CMAKE_OBJCOPY} --strip-debug --add-gnu-debuglink=$<TARGET_FILE:${target}>.debug
            $<TARGET_FILE:${target}>
    VERBATIM)
endfunction()
