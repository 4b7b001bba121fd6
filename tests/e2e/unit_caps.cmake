# SPDX-License-Identifier: ISC
# The administration and maintenance suites again, the daemon holding only
# the capabilities of the systemd unit (less CAP_SYS_BOOT and CAP_SYS_TIME,
# which the lab never grants): what the unit gives must be enough.
foreach(exe tav_e2e_admin tav_e2e_maint)
  string(REPLACE tav_e2e_ e2e_unit_caps_ name ${exe})
  add_test(NAME ${name} COMMAND ${exe})
  set_tests_properties(${name} PROPERTIES LABELS "lab" TIMEOUT 600 FIXTURES_REQUIRED e2e_labs
    ENVIRONMENT "E2E_UP_ARGS=--daemon-caps-from ${PROJECT_SOURCE_DIR}/packaging/systemd/tavc.service"
    SKIP_REGULAR_EXPRESSION "\\[  SKIPPED \\]" FAIL_REGULAR_EXPRESSION "\\[==========\\] 0 tests")
endforeach()
