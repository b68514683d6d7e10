# Debian's cross compiler for arm64; scripts/bootstrap cross installs it, the libraries and the emulator.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig)
find_program(emulator qemu-aarch64)
if(emulator) # runs what is built, tests say
    set(CMAKE_CROSSCOMPILING_EMULATOR ${emulator})
endif()
