# All time-outs of the tests, in seconds. None of them is an expectation: they end what hangs.
set(TEST_TIMEOUT 60)
if(SANITIZE)
  set(TEST_TIMEOUT 240)
endif()
# For those that take thousands of rounds.
set(SLOW_TEST_TIMEOUT 600)
# For tests that compile something.
set(BUILDING_TEST_TIMEOUT 300)
