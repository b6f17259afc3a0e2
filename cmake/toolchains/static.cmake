# Fully static against musl, from Debian's packages musl-tools, clang and libc++-14-dev. No C++ library
# is packaged for musl and none is needed: the agent uses headers of it only, so libc++'s serve, on top
# of musl's, and musl-gcc links.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(CMAKE_C_COMPILER musl-gcc)
set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_CXX_COMPILER_WORKS TRUE)  # its own link would be against the machine's C library
set(CMAKE_CXX_FLAGS_INIT "-nostdlibinc -isystem /usr/lib/llvm-14/include/c++/v1 -isystem /usr/include/x86_64-linux-musl -D_LIBCPP_HAS_MUSL_LIBC -D_GNU_SOURCE")
set(CMAKE_CXX_LINK_EXECUTABLE
    "musl-gcc -static <LINK_FLAGS> <OBJECTS> -o <TARGET> <LINK_LIBRARIES>")
set(CAMERA_AGENT_STATIC ON)
