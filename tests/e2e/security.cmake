# SPDX-License-Identifier: ISC
# Shell and format texts against every handler of the daemon that ships
# (release build when present, as in hostile.cmake).
tav_e2e_executable(tav_e2e_security security_test.cpp)
target_compile_definitions(tav_e2e_security PRIVATE E2E_RELEASE_DIR="${PROJECT_SOURCE_DIR}/build/release")
if(CMAKE_CXX_FLAGS MATCHES "-fsanitize=address")
  target_compile_definitions(tav_e2e_security PRIVATE E2E_SANITIZED=1)
endif()
tav_e2e_suites(tav_e2e_security security=Security)
