# Values of one cloud deployment, built into the agent: no option of the program changes them.
set(CAMERA_AGENT_BALANCER_ADDRESS "127.0.0.1" CACHE STRING
    "Dotted IPv4 address of the cloud directory service (default: the simulator)")

set(octet "(25[0-5]|2[0-4][0-9]|1[0-9][0-9]|[1-9]?[0-9])")
if(NOT CAMERA_AGENT_BALANCER_ADDRESS MATCHES "^${octet}\\.${octet}\\.${octet}\\.${octet}$")
  message(FATAL_ERROR "CAMERA_AGENT_BALANCER_ADDRESS must be a dotted IPv4 address "
                      "(names are never looked up), not \"${CAMERA_AGENT_BALANCER_ADDRESS}\"")
endif()
message(STATUS "Balancer address built in: ${CAMERA_AGENT_BALANCER_ADDRESS}")

set(CAMERA_AGENT_ACCOUNT_HOST "127.0.0.1:8112" CACHE STRING
    "Host of the cloud account service, with its port unless that is 80 (default: the simulator)")
set(CAMERA_AGENT_CAMERA_WEB_HOST "127.0.0.1:8443" CACHE STRING
    "Host of the cloud's camera web interface, with its port unless that is 443")
foreach(host IN ITEMS CAMERA_AGENT_ACCOUNT_HOST CAMERA_AGENT_CAMERA_WEB_HOST)
  if(NOT ${host} MATCHES "^[A-Za-z0-9.-]+(:[0-9]+)?$")
    message(FATAL_ERROR "${host} must be a host name or address, with an optional port, "
                        "not \"${${host}}\"")
  endif()
endforeach()

set(CAMERA_AGENT_VERSION "local_build" CACHE STRING "Version text of this build")
if(NOT CAMERA_AGENT_VERSION MATCHES "^[A-Za-z0-9._+~-]+$")
  message(FATAL_ERROR "CAMERA_AGENT_VERSION must be letters, digits and . _ + ~ -, "
                      "not \"${CAMERA_AGENT_VERSION}\"")
endif()

configure_file(src/core/deployment.h.in ${CMAKE_CURRENT_BINARY_DIR}/generated/core/deployment.h @ONLY)
