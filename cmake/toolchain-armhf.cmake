# Cross build for 32-bit ARM (hard float) with Debian's arm-linux-gnueabihf toolchain against
# Debian's armhf multiarch packages, which install into the host's own tree: libraries under
# /usr/lib/arm-linux-gnueabihf (the platform's libbase and liblog in its android/ subdirectory),
# headers shared under /usr/include. There is no separate sysroot.
#
#   cmake -S . -B build-armhf -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake
#
# Test programs run under qemu-user: binfmt_misc is not available on the build machines, so the
# emulator is named here and ctest (and the test discovery) prefix every command with it. It runs
# with no -L and no QEMU_LD_PREFIX: the program's interpreter is then the multiarch
# /lib/ld-linux-armhf.so.3 with the multiarch libc beside it. Mixing the cross toolchain's own
# ld.so with the multiarch libc crashes as soon as a timer thread starts.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(PWR_CROSS_TRIPLE arm-linux-gnueabihf)
set(CMAKE_C_COMPILER ${PWR_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${PWR_CROSS_TRIPLE}-g++)

# The multiarch directory name: find_library and find_package search lib/<this> first, and the
# top-level CMakeLists.txt takes the platform libraries from /usr/lib/<this>/android.
set(CMAKE_LIBRARY_ARCHITECTURE ${PWR_CROSS_TRIPLE})
set(CMAKE_C_LIBRARY_ARCHITECTURE ${PWR_CROSS_TRIPLE})
set(CMAKE_CXX_LIBRARY_ARCHITECTURE ${PWR_CROSS_TRIPLE})

# Never look in the build machine's own library directory for target libraries.
set(CMAKE_IGNORE_PATH /usr/lib/x86_64-linux-gnu /lib/x86_64-linux-gnu)

find_program(PWR_QEMU_ARM qemu-arm REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR ${PWR_QEMU_ARM})

# 64-bit file offsets, as the device's C library always has them. Under qemu-user the host kernel
# hands the 32-bit program the 64-bit directory offsets of a 64-bit process, which glibc's 32-bit
# readdir cannot return (EOVERFLOW: the scan of a fake /dev/input would end before its first
# entry); a phone's kernel gives a 32-bit process offsets that fit.
add_compile_definitions(_FILE_OFFSET_BITS=64)
