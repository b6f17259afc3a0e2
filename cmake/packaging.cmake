# Where PROGRAMS and what belongs to them is installed, and the Debian packages. Components: "runtime"
# belongs on every device; "system" is what a machine with systemd has besides, with the paths of
# CMAKE_INSTALL_PREFIX (set it when you configure: the unit names it); "debian" is the same for /usr, as
# packages have it, by cpack alone.
set(CMAKE_INSTALL_DOCDIR share/doc/camera-agent CACHE PATH "Documentation, below the prefix")
include(GNUInstallDirs)

set(PACKAGING ${CMAKE_CURRENT_SOURCE_DIR}/packaging)
set(PACKAGED ${CMAKE_CURRENT_BINARY_DIR}/packaging)

install(TARGETS ${PROGRAMS} RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT runtime)

# packaged_gzip(<from> <name>): without name and time, so that two builds are the same.
find_program(GZIP gzip REQUIRED)
function(packaged_gzip from name)
  add_custom_command(OUTPUT ${PACKAGED}/${name}.gz
                     COMMAND ${GZIP} -9nc ${from} > ${PACKAGED}/${name}.gz
                     DEPENDS ${from} VERBATIM)
  set_property(GLOBAL APPEND PROPERTY PACKAGED_GZIPS ${PACKAGED}/${name}.gz)
endfunction()

file(MAKE_DIRECTORY ${PACKAGED})
agent_glob(pages ${PACKAGING} man/*.8)
foreach(page IN LISTS pages)
  get_filename_component(name ${page} NAME)
  packaged_gzip(${page} ${name})
  install(FILES ${PACKAGED}/${name}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT runtime)
endforeach()

agent_glob(documents ${CMAKE_CURRENT_SOURCE_DIR}/docs integration.md cameras.md operations.md
           log-lines.md)
install(FILES ${documents} SECURITY.md CHANGELOG.md DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT runtime)
install(PROGRAMS ${PACKAGING}/sysv/camera-agent DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples
        RENAME camera-agent.init COMPONENT runtime)
# The loader looks for a file with the name of the command.
set(bash_folder ${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions)
foreach(program IN LISTS PROGRAMS)
  install(FILES ${PACKAGING}/completion/camera-agent.bash DESTINATION ${bash_folder}
          RENAME ${program} COMPONENT runtime)
endforeach()

# install_service(<component> <where sbin is> <where etc is> <zsh's folder> [EXCLUDE_FROM_ALL])
function(install_service component SBINDIR SYSCONFDIR zsh)
  configure_file(${PACKAGING}/systemd/camera-agent.service.in
                 ${PACKAGED}/${component}/camera-agent.service @ONLY)
  install(FILES ${PACKAGED}/${component}/camera-agent.service
          DESTINATION lib/systemd/system COMPONENT ${component} ${ARGN})
  install(FILES ${PACKAGING}/systemd/camera-agent.sysusers DESTINATION lib/sysusers.d
          RENAME camera-agent.conf COMPONENT ${component} ${ARGN})
  install(FILES ${PACKAGING}/camera-agent.default DESTINATION ${SYSCONFDIR}/default
          RENAME camera-agent PERMISSIONS OWNER_READ OWNER_WRITE COMPONENT ${component} ${ARGN})
  install(FILES ${PACKAGING}/completion/_camera-agent
          DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/zsh/${zsh} COMPONENT ${component} ${ARGN})
endfunction()
install_service(system ${CMAKE_INSTALL_FULL_SBINDIR} ${CMAKE_INSTALL_FULL_SYSCONFDIR} site-functions)
install_service(debian /usr/sbin /etc vendor-completions EXCLUDE_FROM_ALL)
# Debian versions begin with a digit and have no "_"; what follows the first "-" comes before, as in
# 1.0.0-rc1.
string(REPLACE "_" "." version ${CAMERA_AGENT_VERSION})
string(REPLACE "-" "~" version ${version})
if(NOT version MATCHES "^[0-9]")
  set(version "0~${version}")
endif()
set(CPACK_PACKAGE_CONTACT "Camera agent maintainers <maintainers@camera-agent.example>")

configure_file(${PACKAGING}/debian/changelog.in ${PACKAGED}/changelog @ONLY)
packaged_gzip(${PACKAGED}/changelog changelog)
install(FILES ${PACKAGING}/debian/copyright ${PACKAGED}/changelog.gz
        DESTINATION share/doc/camera-agent COMPONENT debian EXCLUDE_FROM_ALL)
install(FILES ${PACKAGING}/debian/lintian-overrides DESTINATION share/lintian/overrides
        RENAME camera-agent COMPONENT debian EXCLUDE_FROM_ALL)
get_property(gzips GLOBAL PROPERTY PACKAGED_GZIPS)
add_custom_target(packaged ALL DEPENDS ${gzips})

# The processor that the compiler builds for, in Debian's word.
execute_process(COMMAND ${CMAKE_C_COMPILER} -dumpmachine OUTPUT_VARIABLE machine)
set(words "^x86_64.*/amd64" "^aarch64.*/arm64" "^arm.*hf/armhf" "^arm/armel" "^mipsel/mipsel"
    "^riscv64/riscv64" "^i.86/i386")
foreach(word IN LISTS words)
  string(REGEX MATCH "^(.*)/(.*)$" word ${word})
  if(machine MATCHES ${CMAKE_MATCH_1} AND NOT CPACK_DEBIAN_PACKAGE_ARCHITECTURE)
    string(REGEX REPLACE ".*/" "" CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${word})
  endif()
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME camera-agent)
set(CPACK_PACKAGE_VERSION ${version})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Camera streams to a cloud video service")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_CMAKE_PROJECTS "${CMAKE_BINARY_DIR};camera-agent;runtime;/"
    "${CMAKE_BINARY_DIR};camera-agent;debian;/")
set(CPACK_STRIP_FILES ON)
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_CURRENT_SOURCE_DIR}/cmake/packaging_depends.cmake)
set(CPACK_CAMERA_AGENT_READELF ${CMAKE_READELF})
list(TRANSFORM PROGRAMS PREPEND ${CMAKE_CURRENT_BINARY_DIR}/ OUTPUT_VARIABLE CPACK_CAMERA_AGENT_PROGRAMS)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
"Connects the RTSP streams of an IP camera or recorder to a cloud video
service, with outbound connections only. One small process that needs no
privileges, with pages on the local network that show what it does.")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${PACKAGING}/debian/conffiles ${PACKAGING}/debian/postinst
    ${PACKAGING}/debian/prerm ${PACKAGING}/debian/postrm)
include(CPack)
