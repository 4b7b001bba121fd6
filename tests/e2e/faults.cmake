# SPDX-License-Identifier: ISC
# Faults around the daemon that ships (release build when present, as in
# hostile.cmake): the database absent, killed, stalled and restarted;
# SIGTERM mid-flood; delayed children.
tav_e2e_executable(tav_e2e_faults faults_test.cpp)
target_compile_definitions(tav_e2e_faults PRIVATE E2E_RELEASE_DIR="${PROJECT_SOURCE_DIR}/build/release"
  E2E_PROFILE="${PROJECT_SOURCE_DIR}/sim/profiles/default")
tav_e2e_suites(tav_e2e_faults faults_db=DatabaseFaults faults_term=TermMidFlood
  faults_children=DelayedChildren)
set_tests_properties(e2e_faults_db e2e_faults_children PROPERTIES TIMEOUT 300)
if(CMAKE_CXX_FLAGS MATCHES "-fsanitize=address")
  target_compile_definitions(tav_e2e_faults PRIVATE E2E_SANITIZED=1)
endif()
