# Debian packages gcc-mipsel-linux-gnu and g++-mipsel-linux-gnu; for a maker's own
# toolchain copy this file and name its compilers.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR mipsel)
set(CMAKE_C_COMPILER mipsel-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER mipsel-linux-gnu-g++)
