# All time-outs of the tests, in seconds. None of them is an expectation: they end tests that hang.
set(TEST_TIMEOUT 60)
if(SANITIZE)
  set(TEST_TIMEOUT 240)
endif()
# For tests with thousands of iterations.
set(SLOW_TEST_TIMEOUT 1800)
# For tests that compile something.
set(BUILDING_TEST_TIMEOUT 300)
