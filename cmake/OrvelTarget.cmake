# Warnings for Orvel's own targets; -Werror only when ORVEL_WERROR is on (CI).
function(orvel_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow
                         -Wnon-virtual-dtor -Wimplicit-fallthrough)
  # GCC 12 at -O2 reports -Wrestrict on plain `"-" + std::string` inside
  # libstdc++ (GCC bug 105329); the warning says nothing about our code.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    target_compile_options(${target} PRIVATE -Wno-restrict)
  endif()
  if(ORVEL_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()

# A unit test: NAME is the executable, the rest its sources. Every test runs
# through orvel_test_main, which points HOME and the XDG folders at a fresh
# temporary folder before the first test starts.
function(orvel_test name)
  if(NOT ORVEL_BUILD_TESTS)
    return()
  endif()
  cmake_parse_arguments(T "" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${T_SOURCES})
  target_link_libraries(${name} PRIVATE ${T_LIBS} orvel_test_main GTest::gmock)
  orvel_warnings(${name})
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST
                       PROPERTIES TIMEOUT 120)
endfunction()
