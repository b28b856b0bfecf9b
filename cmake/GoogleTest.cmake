# GTest::gtest and GTest::gmock: the machine's libraries, or, for another architecture, built from
# the sources in Debian's package googletest.
if(CMAKE_CROSSCOMPILING)
  set(INSTALL_GTEST OFF)
  set(BUILD_GMOCK ON)
  # The sources are not ours to keep free of warnings, nor to install.
  add_subdirectory(/usr/src/googletest ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL SYSTEM)
  foreach(library gtest gtest_main gmock gmock_main)
    if(NOT TARGET GTest::${library})
      add_library(GTest::${library} ALIAS ${library})
    endif()
  endforeach()
else()
  find_package(GTest REQUIRED)
endif()
include(GoogleTest)
