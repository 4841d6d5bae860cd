# tessera_test(<library> <sources...> [LIBS <extra libraries...>])
#
# Adds unit-test sources to the GoogleTest executable of <library>
# (<library>_test), creating it on first use, so that each module of a
# library can register its own tests. Does nothing when tests are off. Every
# test is labelled with its executable's name, so that a build of a few
# executables runs just their tests (ctest -L).
function(tessera_test library)
  if(NOT TESSERA_BUILD_TESTS)
    return()
  endif()
  cmake_parse_arguments(ARG "" "" "LIBS" ${ARGN})
  set(test_target ${library}_test)
  if(NOT TARGET ${test_target})
    add_executable(${test_target} ${ARG_UNPARSED_ARGUMENTS})
    target_link_libraries(${test_target} PRIVATE ${library} GTest::gmock GTest::gtest GTest::gtest_main
                          Threads::Threads)
    gtest_discover_tests(${test_target} DISCOVERY_TIMEOUT 60
                         PROPERTIES ENVIRONMENT "TESSERA_TEST_TMPDIR=${CMAKE_BINARY_DIR}/test-tmp"
                                    LABELS ${test_target})
  else()
    target_sources(${test_target} PRIVATE ${ARG_UNPARSED_ARGUMENTS})
  endif()
  if(ARG_LIBS)
    target_link_libraries(${test_target} PRIVATE ${ARG_LIBS})
  endif()
endfunction()
