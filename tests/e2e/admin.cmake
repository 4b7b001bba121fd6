# SPDX-License-Identifier: ISC
# Device administration handlers in the lab.
tav_e2e_executable(tav_e2e_admin admin_test.cpp wan_test.cpp)
tav_e2e_suites(tav_e2e_admin account=Account wan=Wan)
