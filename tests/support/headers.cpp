// Only the headers that are compiled once for all tests (tests/test_support.cmake).
