# 32-bit ARM with hardware floating point, with Debian's cross compiler. Its test programs run under qemu-user.
set(VEK_CROSS_TRIPLET arm-linux-gnueabihf)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(VEK_CROSS_EMULATOR qemu-arm-static)
include(${CMAKE_CURRENT_LIST_DIR}/cross/debian.cmake)
