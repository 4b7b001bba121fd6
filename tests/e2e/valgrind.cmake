# This build's daemon under valgrind's memcheck in the lab (skipped where
# valgrind is missing, and in sanitized builds, whose daemon valgrind cannot run).
find_program(VALGRIND valgrind)
if(VALGRIND AND NOT CMAKE_CXX_FLAGS MATCHES "-fsanitize")
  tav_e2e_executable(tav_e2e_valgrind valgrind_test.cpp)
  target_compile_definitions(tav_e2e_valgrind PRIVATE E2E_VALGRIND="${VALGRIND}"
    E2E_RELEASE_DIR="${PROJECT_SOURCE_DIR}/build/release")
  tav_e2e_suites(tav_e2e_valgrind valgrind=Valgrind)
  set_tests_properties(e2e_valgrind PROPERTIES TIMEOUT 300)
endif()
