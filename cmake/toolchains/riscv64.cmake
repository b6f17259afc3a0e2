# Debian packages gcc-riscv64-linux-gnu and g++-riscv64-linux-gnu; for a maker's own
# toolchain copy this file and name its compilers.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR riscv64)
set(CMAKE_C_COMPILER riscv64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER riscv64-linux-gnu-g++)
