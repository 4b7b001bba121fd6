# SPDX-License-Identifier: ISC
# Maintenance: agent profile and lock, firmware upgrade, backup and restore,
# reboot, the manager tool waiting (each suite with a lab of its own).
tav_e2e_executable(tav_e2e_maint maint_test.cpp)
tav_e2e_suites(tav_e2e_maint maint_upgrade=Upgrade maint_transfers=Transfers maint_agent=Agent
  maint_tool=ToolWait)
