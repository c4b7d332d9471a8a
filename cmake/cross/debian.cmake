# What Debian's cross compilers have in common; the toolchain files say which one.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${VEK_CROSS_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${VEK_CROSS_TRIPLET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${VEK_CROSS_TRIPLET})
# The target's C library and loader lie where the cross compiler has them, not where they are on a device.
set(CMAKE_CROSSCOMPILING_EMULATOR ${VEK_CROSS_EMULATOR} -L /usr/${VEK_CROSS_TRIPLET})
# Programs of the build run here. Headers are the same everywhere, libraries only those of the target.
set(CMAKE_FIND_ROOT_PATH /usr/${VEK_CROSS_TRIPLET})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE NEVER)
# This compiler misreads the standard library's own string and vector code in places: these stay warnings. And
# nobody links what other compilers made.
set(CMAKE_CXX_FLAGS_INIT "-Wno-error=restrict -Wno-error=array-bounds -Wno-psabi")
# GoogleTest for the target is built with the tests (FindGTest.cmake).
list(APPEND CMAKE_MODULE_PATH ${CMAKE_CURRENT_LIST_DIR})
