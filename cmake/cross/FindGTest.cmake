# GoogleTest for a target that has none installed: built from the source that Debian's package googletest ships.
# Gives the same targets as an installed one.
if(NOT TARGET GTest::gtest_main)
    set(INSTALL_GTEST OFF)
    add_subdirectory(/usr/src/googletest ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL SYSTEM)
endif()
set(GTest_FOUND TRUE)
