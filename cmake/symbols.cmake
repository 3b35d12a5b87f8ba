# orvik_split_symbols(target): keeps the target's debug information in a file of its own beside it: in
# target.pdb, which clang and MSVC make by themselves, or with GCC in target.exe.debug. What ships stays
# small.
function(orvik_split_symbols target)
  if(MSVC)
    return()
  endif()
  if(NOT ORVIK_PDB)
    set(keep COMMAND ${CMAKE_OBJCOPY} --only-keep-debug $<TARGET_FILE:${target}>
                     $<TARGET_FILE:${target}>.debug)
    set(link --add-gnu-debuglink=$<TARGET_FILE:${target}>.debug)
  endif()
  add_custom_command(
    TARGET ${target}
    POST_BUILD ${keep}
    # With a PDB file there is only what Debian's libraries for C bring.
    COMMAND ${CMAKE_OBJCOPY} --strip-debug ${link} $<TARGET_FILE:${target}>
    VERBATIM)
endfunction()
