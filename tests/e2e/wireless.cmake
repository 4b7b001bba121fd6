# Wireless handlers: status counters, SSIDs, radios and country, clients,
# AP array.
tav_e2e_executable(tav_e2e_wireless wireless_test.cpp)
tav_e2e_suites(tav_e2e_wireless wl_status=Status wl_ssid=Ssid wl_radio=Radio wl_clients=Clients
  wl_aparray=ApArray)
