# All time-outs of the tests, in seconds. None of them is an expectation: they end what hangs.
set(TEST_TIMEOUT 60)
# For tests that compile something.
set(BUILDING_TEST_TIMEOUT 300)
