# 32-bit ARM, hard float, fully static against musl: scripts/musl_arm.sh fetches that from Debian, and
# the packages clang, libc++-14-dev and g++-arm-linux-gnueabihf do the rest. As in static.cmake, libc++
# gives headers only; of the cross compiler, which is for glibc, its linker and libgcc serve.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
get_filename_component(musl "${CMAKE_CURRENT_LIST_DIR}/../../build/musl-armhf/usr" ABSOLUTE)
set(library "${musl}/lib/arm-linux-musleabihf")
if(NOT EXISTS "${library}/libc.a")
  message(FATAL_ERROR "no musl for ARM: run scripts/musl_arm.sh first")
endif()
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_CXX_COMPILER_TARGET armv7-linux-gnueabihf)
set(CMAKE_CXX_COMPILER_WORKS TRUE)  # its own link would be against another C library
set(CMAKE_STRIP arm-linux-gnueabihf-strip)
set(CMAKE_CXX_FLAGS_INIT "-nostdlibinc -isystem /usr/lib/llvm-14/include/c++/v1 -isystem \"${musl}/include/arm-linux-musleabihf\" -D_LIBCPP_HAS_MUSL_LIBC -D_GNU_SOURCE")
set(CMAKE_CXX_LINK_EXECUTABLE
    "arm-linux-gnueabihf-gcc -static -nostdlib <LINK_FLAGS> \"${library}/crt1.o\" \"${library}/crti.o\" <OBJECTS> -o <TARGET> <LINK_LIBRARIES> \"${library}/libc.a\" -lgcc -lgcc_eh \"${library}/libc.a\" \"${library}/crtn.o\"")
set(CAMERA_AGENT_STATIC ON)
