# agent_glob(<variable> <folder> <pattern>...): the files of a folder, sorted, whatever characters the
# folder's path has: file(GLOB) would take brackets in it for a choice of characters.
function(agent_glob variable folder)
  string(REGEX REPLACE "([][*?])" "[\\1]" folder "${folder}")
  list(TRANSFORM ARGN PREPEND "${folder}/" OUTPUT_VARIABLE patterns)
  if(CMAKE_SCRIPT_MODE_FILE)
    file(GLOB found ${patterns})
  else()
    file(GLOB found CONFIGURE_DEPENDS ${patterns})
  endif()
  set(${variable} "${found}" PARENT_SCOPE)
endfunction()
