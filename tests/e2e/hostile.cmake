# SPDX-License-Identifier: ISC
# Hostile input against the daemon that ships: the suites use build/release
# when it holds a daemon and the lab's stand-ins (.ci/run builds it first),
# else this build (a sanitized build always its own daemon), and say which.
tav_e2e_executable(tav_e2e_hostile hostile_test.cpp)
target_compile_definitions(tav_e2e_hostile PRIVATE E2E_RELEASE_DIR="${PROJECT_SOURCE_DIR}/build/release")
tav_e2e_suites(tav_e2e_hostile hostile=Hostile)
set_tests_properties(e2e_hostile PROPERTIES TIMEOUT 420)
if(CMAKE_CXX_FLAGS MATCHES "-fsanitize=address")
  target_compile_definitions(tav_e2e_hostile PRIVATE E2E_SANITIZED=1)
endif()
