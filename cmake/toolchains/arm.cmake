# Debian packages gcc-arm-linux-gnueabihf and g++-arm-linux-gnueabihf; for a maker's own
# toolchain copy this file and name its compilers.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
