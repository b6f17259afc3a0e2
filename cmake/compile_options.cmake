# How the agent is compiled and linked. What a maker gives in CMAKE_CXX_FLAGS and its like is added to,
# never replaced.
include(CheckLinkerFlag)

# Clang also checks which lock guards which field.
function(agent_compile_options target)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Wformat=2
    $<$<BOOL:${CAMERA_AGENT_WERROR}>:-Werror>
    -fno-threadsafe-statics -fno-asynchronous-unwind-tables -fno-unwind-tables
    -ffunction-sections -fdata-sections
    # Builds in different folders are the same, byte for byte.
    -ffile-prefix-map=${PROJECT_SOURCE_DIR}=. -ffile-prefix-map=${PROJECT_BINARY_DIR}=.
    $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>)
  if(CAMERA_AGENT_SANITIZE)
    target_compile_options(${target} PRIVATE -fsanitize=${CAMERA_AGENT_SANITIZE}
                           -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(${target} PUBLIC -fsanitize=${CAMERA_AGENT_SANITIZE})
  elseif(CAMERA_AGENT_HARDENING)
    target_compile_options(${target} PRIVATE -fstack-protector-strong)
    # The C library's checks need an optimised build; a maker's own level stands.
    if(NOT "${CMAKE_CXX_FLAGS} ${CMAKE_CXX_FLAGS_RELEASE}" MATCHES "_FORTIFY_SOURCE")
      target_compile_definitions(${target} PRIVATE $<$<CONFIG:Release>:_FORTIFY_SOURCE=2>)
    endif()
    # Not CMake's property, which makes -fPIC of it for a library.
    if(NOT CAMERA_AGENT_STATIC)
      target_compile_options(${target} PRIVATE -fPIE)
    endif()
  endif()
endfunction()

# agent_link_flag(<target> <flag>): where the linker knows it.
function(agent_link_flag target flag)
  string(MAKE_C_IDENTIFIER "LINKER_KNOWS_${flag}" known)
  check_linker_flag(CXX "${flag}" ${known})
  if(${known})
    target_link_options(${target} PRIVATE "${flag}")
  endif()
endfunction()

# The device needs the C library and nothing else at run time. Code and constants share their pages in
# a release: padding them apart would cost flash, and memory for pages that are mostly padding. Symbols
# are bound at the start: bound on first use, that would happen deep on a worker's stack.
function(agent_link_options target)
  target_link_options(${target} PRIVATE -static-libstdc++ -static-libgcc -Wl,--gc-sections
                      -Wl,--as-needed $<$<CONFIG:Release>:-s>)
  agent_link_flag(${target} -Wl,--build-id=sha1)
  if(CMAKE_BUILD_TYPE STREQUAL Release)
    agent_link_flag(${target} -Wl,-z,noseparate-code)
  endif()
  # Segments begin at multiples of the largest page that a kernel may have: 64 KiB by default, which
  # pads the file by as much. Kernels for 32-bit ARM have 4 KiB, those for the others up to 16 KiB
  # on any device of this kind; a maker with 64 KiB pages sets CAMERA_AGENT_PAGE_SIZE.
  if(NOT CAMERA_AGENT_PAGE_SIZE AND CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64|mips)")
    set(CAMERA_AGENT_PAGE_SIZE 16384)
  elseif(NOT CAMERA_AGENT_PAGE_SIZE AND CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
    set(CAMERA_AGENT_PAGE_SIZE 4096)
  endif()
  if(CAMERA_AGENT_PAGE_SIZE)
    agent_link_flag(${target} -Wl,-z,max-page-size=${CAMERA_AGENT_PAGE_SIZE})
  endif()
  if(CAMERA_AGENT_HARDENING)
    agent_link_flag(${target} -Wl,-z,relro)
    agent_link_flag(${target} -Wl,-z,now)
    agent_link_flag(${target} -Wl,-z,noexecstack)
    if(NOT CAMERA_AGENT_STATIC)
      agent_link_flag(${target} -pie)
    endif()
  endif()
endfunction()
