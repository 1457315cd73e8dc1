# 32-bit Arm, hard-float, with Debian's cross compiler (g++-arm-linux-gnueabihf) and the target's
# libraries installed side by side with the host's (multiarch: libssl-dev:armhf, ...). The cross
# compiler already searches /usr/include/arm-linux-gnueabihf and /usr/lib/arm-linux-gnueabihf, so
# no sysroot is set; CMake only has to look in the target's library directories.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

# Programs run on the build machine; libraries, headers and packages are the target's.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_IGNORE_PREFIX_PATH /usr/lib/x86_64-linux-gnu)

# pkg-config must answer for the target, or FindOpenSSL takes the host's libcrypto.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/arm-linux-gnueabihf/pkgconfig:/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")

# Tests and tools built for the target run on the build machine under user-mode emulation. The
# target's C library comes from the multiarch install (/lib/ld-linux-armhf.so.3), the same one the
# target's OpenSSL was built against, so no QEMU_LD_PREFIX is set.
find_program(VX_QEMU_ARM qemu-arm REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR ${VX_QEMU_ARM})

# GCC notes each std::pair or iterator passed by value that the C++17 ABI of GCC 7 and 10 passes
# differently; everything here is built by one compiler, so the notes say nothing.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
