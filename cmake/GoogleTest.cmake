# SPDX-License-Identifier: Apache-2.0
# GoogleTest for the tests: the installed one, or built here from Debian's googletest sources for
# a target or a C++ runtime that the installed one was not built for (a cross build, libc++).
if(CMAKE_CROSSCOMPILING OR CMAKE_CXX_FLAGS MATCHES "-stdlib=libc\\+\\+")
  set(vrocam_gtest_default ON)
else()
  set(vrocam_gtest_default OFF)
endif()
option(VROCAM_GTEST_FROM_SOURCE "Build GoogleTest from source for this target"
       ${vrocam_gtest_default})
set(VROCAM_GTEST_SOURCE_DIR /usr/src/googletest CACHE PATH "GoogleTest sources")

if(VROCAM_GTEST_FROM_SOURCE)
  set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
  add_subdirectory(${VROCAM_GTEST_SOURCE_DIR} ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
  foreach(lib gtest gtest_main gmock gmock_main)
    if(NOT TARGET GTest::${lib})
      add_library(GTest::${lib} ALIAS ${lib})
    endif()
  endforeach()
else()
  find_package(GTest REQUIRED)
endif()
