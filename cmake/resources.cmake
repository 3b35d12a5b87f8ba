# orvik_executable_resources(target "description")
#
# Gives a program its version resource, from the version of the project, and its manifest.
function(orvik_executable_resources target description)
  set(ORVIK_DESCRIPTION ${description})
  set(ORVIK_FILE_NAME ${target}.exe)
  set(folder ${CMAKE_CURRENT_BINARY_DIR}/${target}.resources)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/program.manifest ${folder}/program.manifest COPYONLY)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/program.rc.in ${folder}/program.rc @ONLY)
  target_sources(${target} PRIVATE ${folder}/program.rc)
  set_source_files_properties(${folder}/program.rc PROPERTIES OBJECT_DEPENDS
                                                              ${folder}/program.manifest)
  if(MSVC)
    target_link_options(${target} PRIVATE /MANIFEST:NO) # ours is in the resources
  endif()
endfunction()
