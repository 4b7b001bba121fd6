# SPDX-License-Identifier: ISC
# Wireless handlers: SSIDs; radios, country and status
# counters; AP array.
tav_e2e_executable(tav_e2e_wireless wireless_test.cpp)
tav_e2e_suites(tav_e2e_wireless wl_ssid=Ssid wl_radio=Radio
  wl_aparray=ApArray)
