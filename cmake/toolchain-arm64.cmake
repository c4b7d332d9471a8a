# 64-bit ARM, with Debian's cross compiler. Its test programs run under qemu-user.
set(VEK_CROSS_TRIPLET aarch64-linux-gnu)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(VEK_CROSS_EMULATOR qemu-aarch64-static)
include(${CMAKE_CURRENT_LIST_DIR}/cross/debian.cmake)
