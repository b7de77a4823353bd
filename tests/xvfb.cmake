# A private Xvfb shared by the tests that need an X server, as a CTest fixture named "xvfb".
#
# zel_xvfb_fixture() registers the fixture tests once per build tree (later calls do nothing):
#   xvfb_start (FIXTURES_SETUP xvfb)    starts Xvfb on a free display and writes ":N" to ${ZEL_XVFB_DISPLAY_FILE}
#   xvfb_stop  (FIXTURES_CLEANUP xvfb)  stops it
#
# A test that needs the display requires the fixture, takes the "xvfb" resource lock (every such test injects
# or reads server-wide pointer input, so they must not overlap) and learns the display from the file:
#
#   include(${PROJECT_SOURCE_DIR}/tests/xvfb.cmake)
#   zel_xvfb_fixture()
#   # GoogleTest cases: the test program reads the file named by ZEL_XVFB_DISPLAY_FILE itself
#   zel_add_gtest(my_gtest my_gtest.cpp LABELS x11 PROPERTIES ${ZEL_XVFB_TEST_PROPERTIES}
#                 ENVIRONMENT "ZEL_XVFB_DISPLAY_FILE=${ZEL_XVFB_DISPLAY_FILE}")
#
# ZEL_XVFB_TEST_PROPERTIES expands to: FIXTURES_REQUIRED xvfb RESOURCE_LOCK xvfb

set(ZEL_XVFB_STATE_DIR "${CMAKE_BINARY_DIR}/xvfb")
set(ZEL_XVFB_DISPLAY_FILE "${ZEL_XVFB_STATE_DIR}/display")
set(ZEL_XVFB_TEST_PROPERTIES FIXTURES_REQUIRED xvfb RESOURCE_LOCK xvfb)

function(zel_xvfb_fixture)
  get_property(defined GLOBAL PROPERTY ZEL_XVFB_FIXTURE_DEFINED)
  if(defined)
    return()
  endif()
  set_property(GLOBAL PROPERTY ZEL_XVFB_FIXTURE_DEFINED TRUE)

  set(script "${PROJECT_SOURCE_DIR}/tests/js/xvfb-fixture.js")
  add_test(NAME xvfb_start COMMAND ${NODE_EXECUTABLE} ${script} start ${ZEL_XVFB_STATE_DIR})
  add_test(NAME xvfb_stop COMMAND ${NODE_EXECUTABLE} ${script} stop ${ZEL_XVFB_STATE_DIR})
  set_tests_properties(xvfb_start PROPERTIES FIXTURES_SETUP xvfb LABELS "x11" TIMEOUT 60)
  set_tests_properties(xvfb_stop PROPERTIES FIXTURES_CLEANUP xvfb LABELS "x11" TIMEOUT 60)
endfunction()
