# Values of one cloud deployment, built into the agent: no option of the program changes them.
set(CAMERA_AGENT_BALANCER_ADDRESS "127.0.0.1" CACHE STRING
    "Dotted IPv4 address of the cloud directory service (default: the simulator)")

set(octet "(25[0-5]|2[0-4][0-9]|1[0-9][0-9]|[1-9]?[0-9])")
if(NOT CAMERA_AGENT_BALANCER_ADDRESS MATCHES "^${octet}\\.${octet}\\.${octet}\\.${octet}$")
  message(FATAL_ERROR "CAMERA_AGENT_BALANCER_ADDRESS must be a dotted IPv4 address "
                      "(names are never looked up), not \"${CAMERA_AGENT_BALANCER_ADDRESS}\"")
endif()
message(STATUS "Balancer address built in: ${CAMERA_AGENT_BALANCER_ADDRESS}")

configure_file(src/core/deployment.h.in ${CMAKE_CURRENT_BINARY_DIR}/generated/core/deployment.h @ONLY)
