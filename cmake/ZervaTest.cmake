# zerva_add_test(name source... LIBS lib...)
# One GoogleTest executable, registered with CTest test by test.
function(zerva_add_test name)
  cmake_parse_arguments(ZT "" "" "LIBS" ${ARGN})
  add_executable(${name} ${ZT_UNPARSED_ARGUMENTS})
  target_link_libraries(${name} PRIVATE ${ZT_LIBS} GTest::gtest GTest::gtest_main GTest::gmock)
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 120)
endfunction()
