# The temporary directory every test runs with (TMPDIR): made empty before the
# tests (ACTION=create), and checked after them (ACTION=check): a test that
# leaves something behind fails the check.
if(ACTION STREQUAL "create")
  file(REMOVE_RECURSE ${DIR})
  file(MAKE_DIRECTORY ${DIR})
else()
  file(GLOB left RELATIVE ${DIR} ${DIR}/*)
  if(left)
    message(FATAL_ERROR "tests left behind in ${DIR}: ${left}")
  endif()
  file(REMOVE_RECURSE ${DIR})
endif()
