# Debian's cross compiler for armhf; scripts/bootstrap cross installs it, the libraries and the emulator.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/arm-linux-gnueabihf/pkgconfig:/usr/share/pkgconfig)
find_program(emulator qemu-arm)
if(emulator) # runs what is built, tests say
    set(CMAKE_CROSSCOMPILING_EMULATOR ${emulator})
endif()
