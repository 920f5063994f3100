# Cross-builds for 64-bit ARM with the libraries of Debian's architecture arm64; the preset names the compilers.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_STRIP aarch64-linux-gnu-strip)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(PKG_CONFIG_EXECUTABLE aarch64-linux-gnu-pkg-config)
# Programs of the build, the tests among them, run under it.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64-static)
