# Warnings are errors in every build; clang also checks which lock guards which field.
function(agent_compile_options target)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Wformat=2 -Werror
    -fno-threadsafe-statics -fno-asynchronous-unwind-tables -ffunction-sections -fdata-sections
    $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>)
  if(CAMERA_AGENT_SANITIZE)
    target_compile_options(${target} PRIVATE -fsanitize=${CAMERA_AGENT_SANITIZE}
                           -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(${target} PUBLIC -fsanitize=${CAMERA_AGENT_SANITIZE})
  endif()
endfunction()
