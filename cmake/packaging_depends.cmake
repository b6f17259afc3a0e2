# Read by cpack: what the package depends on. dpkg-shlibdeps does not know the C libraries of other
# processors, so the version is read from the programs: the highest that one of their symbols asks for.
set(highest 0)
foreach(program IN LISTS CPACK_CAMERA_AGENT_PROGRAMS)
  execute_process(COMMAND ${CPACK_CAMERA_AGENT_READELF} -V ${program} OUTPUT_VARIABLE versions
                  COMMAND_ERROR_IS_FATAL ANY)
  string(REGEX MATCHALL "GLIBC_[0-9.]+" versions "${versions}")
  foreach(version IN LISTS versions)
    string(REPLACE "GLIBC_" "" version ${version})
    if(version VERSION_GREATER highest)
      set(highest ${version})
    endif()
  endforeach()
endforeach()
# Whichever brings systemd-sysusers, for the user.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "systemd | systemd-standalone-sysusers | systemd-sysusers")
if(highest)  # else linked statically
  string(PREPEND CPACK_DEBIAN_PACKAGE_DEPENDS "libc6 (>= ${highest}), ")
endif()
