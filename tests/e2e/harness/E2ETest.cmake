# orvane_add_e2e_test(<name> <source>...)
#
# Builds a GoogleTest binary that runs the installed program in sandboxes
# and registers each of its tests with ctest. The tests need the staging
# tree, so they depend on the install-stage fixture; a test that skips
# itself (not root, no namespaces) is reported as skipped, not passed.
function(orvane_add_e2e_test name)
  if(NOT ARGN)
    message(FATAL_ERROR "orvane_add_e2e_test(${name}) needs at least one source file")
  endif()
  add_executable(${name} ${ARGN})
  target_link_libraries(${name} PRIVATE orvane_sandbox GTest::gtest_main)
  orvane_discover_e2e_tests(${name} FIXTURES_REQUIRED stage)
endfunction()

# Registers the tests of an end-to-end GoogleTest binary with the
# properties every end-to-end test shares, plus any given.
function(orvane_discover_e2e_tests target)
  gtest_discover_tests(${target}
    DISCOVERY_TIMEOUT 30
    PROPERTIES LABELS e2e SKIP_REGULAR_EXPRESSION "\\[  SKIPPED \\]" ${ARGN})
endfunction()
