# This build's daemon under valgrind's memcheck in the lab (skipped where
# valgrind is missing; scripts/deps.sh installs it).
find_program(VALGRIND valgrind)
if(VALGRIND)
  tav_e2e_executable(tav_e2e_valgrind valgrind_test.cpp)
  target_compile_definitions(tav_e2e_valgrind PRIVATE E2E_VALGRIND="${VALGRIND}"
    E2E_RELEASE_DIR="${PROJECT_SOURCE_DIR}/build/release")
  tav_e2e_suites(tav_e2e_valgrind valgrind=Valgrind)
  set_tests_properties(e2e_valgrind PROPERTIES TIMEOUT 300)
endif()
