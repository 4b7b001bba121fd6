// SPDX-License-Identifier: ISC
// Every TLV tag of the TAV protocol: number, name, value kind and where it
// appears. One tag number can mean different things in different op codes
// (tag 8 is a host name in discovery but a member's model name in the AP-array
// device list; tag 395 is big-endian everywhere except in the SNMP set reply),
// so look-ups take the op code and consult kTagOverrides before kTags.
//
// Header-only, constexpr, no allocation: the daemon may use the constants and
// the tables cost nothing unless referenced.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "proto/wire.h"

namespace tav {

// How a value is laid out on the wire.
enum class TagKind : uint8_t {
    kText,   // bytes up to the first NUL (sent with its NUL unless noted)
    kU8,
    kU16,    // big-endian
    kU32,    // big-endian
    kU32Le,  // little-endian (tag 52, tag 526, tag 395 in op 0xD4)
    kI32,    // big-endian two's complement
    kU64,    // big-endian
    kMac,    // 6 bytes
    kIpv4,   // 4 bytes, network order
    kBytes,  // opaque
};

constexpr std::string_view tag_kind_name(TagKind k) {
    switch (k) {
        case TagKind::kText: return "text";
        case TagKind::kU8: return "u8";
        case TagKind::kU16: return "u16";
        case TagKind::kU32: return "u32";
        case TagKind::kU32Le: return "u32le";
        case TagKind::kI32: return "i32";
        case TagKind::kU64: return "u64";
        case TagKind::kMac: return "mac";
        case TagKind::kIpv4: return "ipv4";
        case TagKind::kBytes: return "bytes";
    }
    return "bytes";
}

// Fixed value size of a kind, 0 for variable-length kinds.
constexpr size_t tag_kind_size(TagKind k) {
    switch (k) {
        case TagKind::kU8: return 1;
        case TagKind::kU16: return 2;
        case TagKind::kU32:
        case TagKind::kU32Le:
        case TagKind::kI32:
        case TagKind::kIpv4: return 4;
        case TagKind::kU64: return 8;
        case TagKind::kMac: return 6;
        case TagKind::kText:
        case TagKind::kBytes: return 0;
    }
    return 0;
}

// ---- tag numbers ----------------------------------------------------------

// A tag number whose type names it, so that a handler's rule or reply value is
// checked against the tables below at compile time (tag_form). `Op` binds the
// tag to one op code, for the few tags whose wire form depends on it (0: the
// common meaning). Everywhere else it is the plain number.
template <uint16_t N, uint16_t Op = 0>
struct Tag {
    static constexpr uint16_t number = N;
    static constexpr uint16_t op_code = Op;
    constexpr operator uint16_t() const { return N; }
    // The same tag as op code `O` uses it.
    template <uint16_t O>
    constexpr Tag<N, O> in() const {
        return {};
    }
};

// Identity (discovery 0xA1, report 0xA0), general information, IPv4 address.
inline constexpr Tag<1> kTagModelName{};
inline constexpr Tag<2> kTagProductType{};
inline constexpr Tag<3> kTagReservedWord{};
inline constexpr Tag<4> kTagFirmwareVersion{};
inline constexpr Tag<5> kTagHardwareVersion{};
inline constexpr Tag<6> kTagInformation{};
inline constexpr Tag<7> kTagVendor{};
inline constexpr Tag<8> kTagHostName{};
inline constexpr Tag<9> kTagSystemName{};
inline constexpr Tag<10> kTagDeviceName{};
inline constexpr Tag<12> kTagAddressMode{};
inline constexpr Tag<13> kTagDeviceDnsType{};
inline constexpr Tag<14> kTagMac{};
inline constexpr Tag<15> kTagIpAddress{};
inline constexpr Tag<17> kTagNetmask{};
inline constexpr Tag<18> kTagGateway{};
inline constexpr Tag<20> kTagPrimaryDns{};
inline constexpr Tag<22> kTagSecondaryDns{};
inline constexpr Tag<25> kTagWanMode{};
inline constexpr Tag<29> kTagInterfaceName{};
inline constexpr Tag<30> kTagCustomizedDns{};
inline constexpr Tag<31> kTagDeviceInfoType{};
inline constexpr Tag<32> kTagWebPort{};
// Date and time.
inline constexpr Tag<35> kTagNtpEnable{};
inline constexpr Tag<36> kTagNtpServer{};
inline constexpr Tag<37> kTagNtpServerFormat{};
inline constexpr Tag<38> kTagTimeReserved{};
// SNMP.
inline constexpr Tag<39> kTagSnmpGlobalState{};
inline constexpr Tag<40> kTagSnmpRocomm{};
inline constexpr Tag<41> kTagSnmpRwcomm{};
inline constexpr Tag<42> kTagSnmpRoview{};
inline constexpr Tag<43> kTagSnmpRwview{};
inline constexpr Tag<44> kTagSnmpCommunityType{};
inline constexpr Tag<45> kTagSnmpCommunity{};
// Identity, central management.
inline constexpr Tag<46> kTagTavMode{};
inline constexpr Tag<47> kTagAgUuid{};
inline constexpr Tag<48> kTagNmsServer{};
inline constexpr Tag<49> kTagMsgInterval{};
// Account and authentication.
inline constexpr Tag<50> kTagNewUserName{};
inline constexpr Tag<51> kTagNewPassword{};
inline constexpr Tag<52> kTagVerification{};
inline constexpr Tag<54> kTagServerPrecedence{};
inline constexpr Tag<55> kTagUserName{};
inline constexpr Tag<56> kTagPassword{};
inline constexpr Tag<57> kTagManagedStatus{};
inline constexpr Tag<58> kTagConnectionStatus{};
inline constexpr Tag<59> kTagCountryIndex{};
// Date and time (set request).
inline constexpr Tag<300> kTagTimeType{};
inline constexpr Tag<301> kTagDateTime{};
inline constexpr Tag<303> kTagTimeZoneId{};
inline constexpr Tag<304> kTagTimeZoneFormat{};
inline constexpr Tag<306> kTagGmtSign{};
inline constexpr Tag<307> kTagGmtHour{};
inline constexpr Tag<308> kTagGmtMinute{};
inline constexpr Tag<310> kTagDstEnable{};
inline constexpr Tag<311> kTagStartYear{};
inline constexpr Tag<312> kTagEndYear{};
inline constexpr Tag<313> kTagStartMon{};
inline constexpr Tag<314> kTagEndMon{};
inline constexpr Tag<315> kTagStartDay{};
inline constexpr Tag<316> kTagEndDay{};
inline constexpr Tag<317> kTagStartHour{};
inline constexpr Tag<318> kTagEndHour{};
inline constexpr Tag<319> kTagStartMin{};
inline constexpr Tag<320> kTagEndMin{};
// Maintenance 0x0180..0x018C and the set-reply group 393..395.
inline constexpr Tag<0x0180> kTagSubserviceType{};
inline constexpr Tag<0x0181> kTagServerType{};
inline constexpr Tag<0x0182> kTagServerIpType{};
inline constexpr Tag<0x0183> kTagServerIpAddr{};
inline constexpr Tag<0x0184> kTagReplyStatus{};
inline constexpr Tag<0x0185> kTagFwOrUrlName{};
inline constexpr Tag<0x0186> kTagCfgOrUrlName{};
inline constexpr Tag<0x0187> kTagFailureText{};
inline constexpr Tag<0x0188> kTagDelayTime{};
inline constexpr Tag<0x0189> kTagSetStatus{};
inline constexpr Tag<0x018A> kTagWaitTime{};
inline constexpr Tag<0x018B> kTagErrorMask{};
inline constexpr Tag<0x018C> kTagServerPort{};
// Lists.
inline constexpr Tag<500> kTagSupportedFunction{};
inline constexpr Tag<501> kTagEolOrCnt{};  // TAG_TAV_EOL_OR_CNT
inline constexpr Tag<502> kTagGroup{};     // group_tag
// Wireless.
inline constexpr Tag<512> kTagTlvBand{};
inline constexpr Tag<517> kTagCpuUtilization{};
inline constexpr Tag<518> kTagMemoryUsage{};
inline constexpr Tag<519> kTagWlan2gSend{};
inline constexpr Tag<520> kTagWlan2gReceived{};
inline constexpr Tag<521> kTagWlan5gSend{};
inline constexpr Tag<522> kTagWlan5gReceived{};
inline constexpr Tag<523> kTagLanSend{};
inline constexpr Tag<524> kTagLanReceived{};
inline constexpr Tag<525> kTagSupportedBand{};
inline constexpr Tag<526> kTagSupportedAuth{};
inline constexpr Tag<527> kTagSupportedAddressFormat{};
inline constexpr Tag<528> kTagBandStatus{};
inline constexpr Tag<529> kTagSupportedWirelessMode2g{};
inline constexpr Tag<530> kTagWirelessModeStatus2g{};
inline constexpr Tag<531> kTagSupportedWirelessMode5g{};
inline constexpr Tag<532> kTagWirelessModeStatus5g{};
inline constexpr Tag<533> kTagRadioBand{};
inline constexpr Tag<534> kTagWirelessMode2g{};
inline constexpr Tag<535> kTagWirelessMode5g{};
inline constexpr Tag<536> kTagWirelessMode5g2{};
inline constexpr Tag<922> kTagClientSsid{};
inline constexpr Tag<923> kTagChannel{};
inline constexpr Tag<924> kTagClientAuth{};
inline constexpr Tag<925> kTagRssi{};
inline constexpr Tag<926> kTagSsidIndex{};
inline constexpr Tag<927> kTagSsidName{};
inline constexpr Tag<928> kTagBand{};
inline constexpr Tag<929> kTagVlanId{};
inline constexpr Tag<930> kTagAuthType{};
inline constexpr Tag<931> kTagPassphrase{};
inline constexpr Tag<932> kTagRadiusAddressType{};
inline constexpr Tag<933> kTagRadiusAddress{};
inline constexpr Tag<934> kTagRadiusSecret{};
inline constexpr Tag<935> kTagSsidStatus{};  // TAG_SSID_STATUS
// AP array.
inline constexpr Tag<936> kTagApArrayEnable{};
inline constexpr Tag<937> kTagApArrayRole{};
inline constexpr Tag<938> kTagApArrayName{};
inline constexpr Tag<939> kTagApArrayNameFilter{};
inline constexpr Tag<940> kTagApArrayPreferredMaster{};
inline constexpr Tag<941> kTagApArrayAddApAuto{};
inline constexpr Tag<942> kTagApArrayReserved{};
inline constexpr Tag<943> kTagReqType{};
inline constexpr Tag<944> kTagListType{};
inline constexpr Tag<945> kTagDeviceStatus{};
inline constexpr Tag<946> kTagAction{};

// ---- tag table ------------------------------------------------------------

struct TagInfo {
    uint16_t tag;
    std::string_view name;   // UPPER_SNAKE; unique within kTags
    TagKind kind;
    std::string_view where;  // op codes and direction it appears in
    std::string_view meaning;
};

// Sorted by tag number.
inline constexpr std::array<TagInfo, 127> kTags{{
    {1, "MODEL_NAME", TagKind::kText, "0xA1 reply, report", "model name: host name and hardware version"},
    {2, "PRODUCT_TYPE", TagKind::kText, "0xA1 reply, report", "product type"},
    {3, "RESERVED_WORD", TagKind::kU32, "0xA1 reply", "always zero"},
    {4, "FIRMWARE_VERSION", TagKind::kText, "0xA1 reply, report", "firmware version"},
    {5, "HARDWARE_VERSION", TagKind::kText, "0xA1 reply, report", "hardware version"},
    {6, "INFORMATION", TagKind::kText, "0xE0 reply", "fixed information text"},
    {7, "VENDOR", TagKind::kText, "0xA1 reply", "vendor"},
    {8, "HOST_NAME", TagKind::kText, "0xA1 reply; 0x200B reply (model name)", "host name"},
    {9, "SYSTEM_NAME", TagKind::kText, "0xA1 reply, report, 0x200B reply", "system name"},
    {10, "DEVICE_NAME", TagKind::kText, "0xE3 request", "new system name"},
    {12, "ADDRESS_MODE", TagKind::kU8, "0xA1 reply, 0xE1 request", "address mode (always 0)"},
    {13, "DEVICE_DNS_TYPE", TagKind::kU8, "0xE1 request", "DNS type (ignored)"},
    {14, "MAC", TagKind::kMac, "0xA1 reply, report, 0x2008 reply, 0x200B reply, 0x200C request", "MAC address"},
    {15, "IP_ADDRESS", TagKind::kIpv4, "0xA1 reply, report, 0xE1 request", "IPv4 address"},
    {17, "NETMASK", TagKind::kIpv4, "0xA1 reply, report, 0xE1 request", "IPv4 subnet mask"},
    {18, "GATEWAY", TagKind::kIpv4, "0xA1 reply, 0xE1 request", "default gateway"},
    {20, "PRIMARY_DNS", TagKind::kIpv4, "0xA1 reply, 0xE1 request", "primary DNS server"},
    {22, "SECONDARY_DNS", TagKind::kIpv4, "0xA1 reply, 0xE1 request", "secondary DNS server (zero; ignored when set)"},
    {25, "WAN_MODE", TagKind::kU8, "0xA1 reply, 0xE1 request", "addressing: 0 static, 1 dynamic"},
    {29, "INTERFACE_NAME", TagKind::kText, "report", "interface name"},
    {30, "CUSTOMIZED_DNS", TagKind::kU8, "0xE1 request", "customised DNS (ignored)"},
    {31, "DEVICE_INFO_TYPE", TagKind::kU8, "0xE3 request", "item to change: 0 system name, 1 web port"},
    {32, "WEB_PORT", TagKind::kU16, "0xA1 reply, 0xE3 request", "web server port"},
    {35, "NTP_ENABLE", TagKind::kU8, "0xE4 reply, 0xE5 request", "1 when the clock follows NTP"},
    {36, "NTP_SERVER", TagKind::kText, "0xE4 reply, 0xE5 request", "NTP server"},
    {37, "NTP_SERVER_FORMAT", TagKind::kU8, "0xE4 reply, 0xE5 request", "1 dotted IPv4 address, 0 domain name"},
    {38, "TIME_RESERVED", TagKind::kU8, "0xE4 reply", "always 4"},
    {39, "SNMP_GLOBAL_STATE", TagKind::kU8, "0xDA reply, 0xD4 request", "bit 0 SNMP on; bit 1 delete mode (set); 0xC0 or-ed in (get)"},
    {40, "SNMP_ROCOMM", TagKind::kText, "0xD4 request", "read-only community"},
    {41, "SNMP_RWCOMM", TagKind::kText, "0xD4 request", "read-write community"},
    {42, "SNMP_ROVIEW", TagKind::kText, "0xD4 request", "read-only view (refused)"},
    {43, "SNMP_RWVIEW", TagKind::kText, "0xD4 request", "read-write view (refused)"},
    {44, "SNMP_COMMUNITY_TYPE", TagKind::kU8, "0xDA reply", "1 read-only, 2 read-write; names the next tag 45"},
    {45, "SNMP_COMMUNITY", TagKind::kText, "0xDA reply", "community text, sent without NUL"},
    {46, "TAV_MODE", TagKind::kU8, "0xA1 reply", "TAV mode"},
    {47, "AG_UUID", TagKind::kText, "0xA1 reply, 0xE6 request", "agent group identifier"},
    {48, "NMS_SERVER", TagKind::kText, "0xA1 reply, 0xE6 request", "management server address"},
    {49, "MSG_INTERVAL", TagKind::kU8, "0xE6 request", "agent keep-alive interval"},
    {50, "NEW_USER_NAME", TagKind::kText, "0xA4 request", "new user name, base64"},
    {51, "NEW_PASSWORD", TagKind::kText, "0xA4 request", "new password, base64"},
    {52, "VERIFICATION", TagKind::kU32Le, "0xA3 reply", "1 (little-endian) when the credentials are right"},
    {54, "SERVER_PRECEDENCE", TagKind::kU8, "set requests", "manager precedence for the op code"},
    {55, "USER_NAME", TagKind::kText, "set requests", "administrator user name"},
    {56, "PASSWORD", TagKind::kText, "set requests", "administrator password"},
    {57, "MANAGED_STATUS", TagKind::kU8, "0xA1 reply", "central-management state"},
    {58, "CONNECTION_STATUS", TagKind::kU16, "0xA1 reply", "central-management connection state"},
    {59, "COUNTRY_INDEX", TagKind::kU16, "0x2006 reply, 0x2007 request", "country index"},
    {300, "TIME_TYPE", TagKind::kU8, "0xE5 request", "0 clock settings, other daylight saving"},
    {301, "DATE_TIME", TagKind::kText, "0xA1 reply, 0xE4 reply, 0xE5 request", "date and time YYYYMMDDhhmmss"},
    {303, "TIME_ZONE_ID", TagKind::kU16, "0xE4 reply, 0xE5 request", "time-zone id 1..84"},
    {304, "TIME_ZONE_FORMAT", TagKind::kU8, "0xE5 request", "ignored"},
    {306, "GMT_SIGN", TagKind::kU8, "0xE5 request", "ignored"},
    {307, "GMT_HOUR", TagKind::kU8, "0xE5 request", "ignored"},
    {308, "GMT_MINUTE", TagKind::kU8, "0xE5 request", "ignored"},
    {310, "DST_ENABLE", TagKind::kU8, "0xE5 request", "daylight saving on or off"},
    {311, "START_YEAR", TagKind::kU16, "0xE5 request", "ignored"},
    {312, "END_YEAR", TagKind::kU16, "0xE5 request", "ignored"},
    {313, "START_MON", TagKind::kU8, "0xE5 request", "ignored"},
    {314, "END_MON", TagKind::kU8, "0xE5 request", "ignored"},
    {315, "START_DAY", TagKind::kU8, "0xE5 request", "ignored"},
    {316, "END_DAY", TagKind::kU8, "0xE5 request", "ignored"},
    {317, "START_HOUR", TagKind::kU8, "0xE5 request", "ignored"},
    {318, "END_HOUR", TagKind::kU8, "0xE5 request", "ignored"},
    {319, "START_MIN", TagKind::kU8, "0xE5 request", "ignored"},
    {320, "END_MIN", TagKind::kU8, "0xE5 request", "ignored"},
    {0x0180, "SUBSERVICE_TYPE", TagKind::kU8, "0x100/0x101/0x102 request and reply", "1 parameter configure, 2 status query"},
    {0x0181, "SERVER_TYPE", TagKind::kU8, "0x100/0x101/0x102 request", "1 TFTP server"},
    {0x0182, "SERVER_IP_TYPE", TagKind::kU8, "0x100/0x101/0x102 request", "ignored"},
    {0x0183, "SERVER_IP_ADDR", TagKind::kIpv4, "0x100/0x101/0x102 request", "TFTP server address"},
    {0x0184, "REPLY_STATUS", TagKind::kU8, "0xE1, 0xE3, 0xE6, 0x100, 0x101, 0x102 reply", "reply status / progress"},
    {0x0185, "FW_OR_URL_NAME", TagKind::kText, "0x100 request", "firmware file name or URL"},
    {0x0186, "CFG_OR_URL_NAME", TagKind::kText, "0x101/0x102 request", "configuration file name or URL"},
    {0x0187, "FAILURE_TEXT", TagKind::kText, "0xE3, 0x100 reply", "failure text"},
    {0x0188, "DELAY_TIME", TagKind::kU32, "0xAA, 0xAB, 0x103 request", "delay in seconds"},
    {0x0189, "SET_STATUS", TagKind::kU32, "set replies", "status"},
    {0x018A, "WAIT_TIME", TagKind::kU32, "set replies", "time the manager is to wait, ms"},
    {0x018B, "ERROR_MASK", TagKind::kU32, "set replies", "mask of refused items"},
    {0x018C, "SERVER_PORT", TagKind::kU16, "0x101 request", "server port (ignored)"},
    {500, "SUPPORTED_FUNCTION", TagKind::kU16, "0xA5 reply", "an op code served"},
    {501, "TAG_TAV_EOL_OR_CNT", TagKind::kU16, "list replies, 0x2005/0x2007 request", "end of list"},
    {502, "GROUP_TAG", TagKind::kU16, "0x200B reply, 0x200C/0x2007 request", "opens a group"},
    {512, "TLV_BAND", TagKind::kU8, "0x2008 reply", "0 band 1, 1 band 2"},
    {517, "CPU_UTILIZATION", TagKind::kU8, "0x2003 reply", "CPU utilisation %"},
    {518, "MEMORY_USAGE", TagKind::kU8, "0x2003 reply", "memory utilisation %"},
    {519, "WLAN_2G_SEND", TagKind::kU64, "0x2003 reply", "band 1 bytes sent"},
    {520, "WLAN_2G_RECEIVED", TagKind::kU64, "0x2003 reply", "band 1 bytes received"},
    {521, "WLAN_5G_SEND", TagKind::kU64, "0x2003 reply", "band 2 bytes sent"},
    {522, "WLAN_5G_RECEIVED", TagKind::kU64, "0x2003 reply", "band 2 bytes received"},
    {523, "LAN_SEND", TagKind::kU64, "0x2003 reply", "Ethernet bytes sent"},
    {524, "LAN_RECEIVED", TagKind::kU64, "0x2003 reply", "Ethernet bytes received"},
    {525, "SUPPORTED_BAND", TagKind::kU8, "0x2004/0x2006 reply, 0x2007 request", "band mask"},
    {526, "SUPPORTED_AUTH", TagKind::kU32Le, "0x2004 reply", "authentication codes served (little-endian)"},
    {527, "SUPPORTED_ADDRESS_FORMAT", TagKind::kU8, "0x2004 reply", "always 1"},
    {528, "BAND_STATUS", TagKind::kU8, "0x2006 reply", "bands in AP mode and switched on"},
    {529, "SUPPORTED_WIRELESS_MODE_2G", TagKind::kU16, "0x2006 reply", "band 1 mode mask"},
    {530, "WIRELESS_MODE_STATUS_2G", TagKind::kU16, "0x2006 reply", "band 1 mode code"},
    {531, "SUPPORTED_WIRELESS_MODE_5G", TagKind::kU16, "0x2006 reply", "band 2 mode mask"},
    {532, "WIRELESS_MODE_STATUS_5G", TagKind::kU16, "0x2006 reply", "band 2 mode code"},
    {533, "RADIO_BAND", TagKind::kU8, "0x2007 request", "bit 0 apply; bit 1 band 1 on; bit 2 band 2 on"},
    {534, "WIRELESS_MODE_2G", TagKind::kU16, "0x2007 request", "bit 0 apply; bits 1-15 band 1 mode code"},
    {535, "WIRELESS_MODE_5G", TagKind::kU16, "0x2007 request", "bit 0 apply; bits 1-15 band 2 mode code"},
    {536, "WIRELESS_MODE_5G2", TagKind::kU16, "0x2007 request", "ignored"},
    {922, "SSID", TagKind::kText, "0x2008 reply", "SSID the station uses"},
    {923, "CHANNEL", TagKind::kU8, "0x2008 reply", "band channel"},
    {924, "AUTH", TagKind::kU8, "0x2008 reply", "station authentication code"},
    {925, "RSSI", TagKind::kI32, "0x2008 reply", "signal strength"},
    {926, "SSID_INDEX", TagKind::kU8, "0x2004 reply, 0x2005 request", "SSID index 0..7; opens an SSID group"},
    {927, "SSID_NAME", TagKind::kText, "0x2004 reply, 0x2005 request", "SSID name"},
    {928, "BAND", TagKind::kU8, "0x2004 reply, 0x2005 request", "band number (reply) or band mask (request)"},
    {929, "VLAN_ID", TagKind::kU16, "0x2004 reply, 0x2005 request", "VLAN id"},
    {930, "AUTH_TYPE", TagKind::kU8, "0x2004 reply, 0x2005 request", "authentication code 0..12"},
    {931, "PASSPHRASE", TagKind::kText, "0x2004 reply, 0x2005 request", "passphrase"},
    {932, "RADIUS_ADDRESS_TYPE", TagKind::kU8, "0x2004 reply, 0x2005 request", "1 IPv4"},
    {933, "RADIUS_ADDRESS", TagKind::kText, "0x2004 reply, 0x2005 request", "RADIUS server address"},
    {934, "RADIUS_SECRET", TagKind::kText, "0x2004 reply, 0x2005 request", "RADIUS shared secret"},
    {935, "TAG_SSID_STATUS", TagKind::kU8, "0x2004 reply, 0x2005 request", "SSID on (non-zero) or off"},
    {936, "AP_ARRAY_ENABLE", TagKind::kU8, "0x2009 reply, 0x200A request", "AP array on"},
    {937, "AP_ARRAY_ROLE", TagKind::kU8, "0x2009 reply, 0x200A request", "role code 0, 1, 2"},
    {938, "AP_ARRAY_NAME", TagKind::kText, "0x2009 reply, 0x200A request", "AP array domain name"},
    {939, "AP_ARRAY_NAME_FILTER", TagKind::kU8, "0x2009 reply, 0x200A request", "name filter"},
    {940, "AP_ARRAY_PREFERRED_MASTER", TagKind::kU8, "0x2009 reply, 0x200A request", "preferred master"},
    {941, "AP_ARRAY_ADD_AP_AUTO", TagKind::kU8, "0x2009 reply, 0x200A request", "add access points automatically"},
    {942, "AP_ARRAY_RESERVED", TagKind::kU8, "0x2009 reply", "always 16"},
    {943, "REQ_TYPE", TagKind::kU8, "0x200B request", "bit 0 members, bit 1 unmanaged"},
    {944, "LIST_TYPE", TagKind::kU8, "0x200B reply", "0 member, 1 unmanaged"},
    {945, "DEVICE_STATUS", TagKind::kU8, "0x200B reply", "member status"},
    {946, "ACTION", TagKind::kU8, "0x200C request", "1 approve, 2 remove, 3 reboot"},
}};

// Meanings that differ by op code. Consulted before kTags.
struct TagOverride {
    uint16_t op_code;
    TagInfo info;
};

inline constexpr std::array<TagOverride, 15> kTagOverrides{{
    {kOpGetApArrayDeviceList, {8, "MODEL_NAME", TagKind::kText, "0x200B reply", "listed access point's model name"}},
    {kOpGetApArrayDeviceList, {9, "SYSTEM_NAME", TagKind::kText, "0x200B reply", "listed access point's system name (unmanaged: its model name)"}},
    {kOpGetApArrayDeviceList, {14, "MAC", TagKind::kMac, "0x200B reply", "listed access point's MAC"}},
    {kOpGetApArrayDeviceList, {501, "TAG_TAV_EOL_OR_CNT", TagKind::kU16, "0x200B reply", "end of list (0xEEEE)"}},
    {kOpGetClientList, {14, "MAC", TagKind::kMac, "0x2008 reply", "station MAC; opens a station group"}},
    {kOpSetApArrayMemberList, {14, "MAC", TagKind::kMac, "0x200C request", "target access point's MAC"}},
    {kOpSetIpv4, {15, "DEVICE_IP", TagKind::kIpv4, "0xE1 request", "static IPv4 address"}},
    // The device's own spelling.
    {kOpSetIpv4, {17, "DEVCIE_IP_MASK", TagKind::kIpv4, "0xE1 request", "static subnet mask"}},
    {kOpSetIpv4, {18, "DEFAULT_GATEWAY", TagKind::kIpv4, "0xE1 request", "static default gateway"}},
    {kOpSetDeviceInfo, {32, "WEB_PORT_NUM", TagKind::kU16, "0xE3 request", "new web server port"}},
    {kOpSetDeviceInfo, {0x0187, "FAILURE_TEXT", TagKind::kText, "0xE3 reply", "failure text, sent without NUL"}},
    {kOpSetAgProfile, {47, "AGENT_GROUP_UUID", TagKind::kText, "0xE6 request", "agent group identifier"}},
    {kOpSetAgProfile, {48, "NMS_URL", TagKind::kText, "0xE6 request", "management server address"}},
    {kOpSetSnmp, {0x018B, "SNMP_ERROR_MASK", TagKind::kU32Le, "0xD4 reply", "refused items, little-endian: 2 rocomm, 4 rwcomm, 8 roview, 16 rwview"}},
    {kOpSetWirelessInfo, {525, "SUPPORT_BAND", TagKind::kU8, "0x2007 request", "ignored"}},
}};

namespace detail {
constexpr char ascii_upper(char c) { return (c >= 'a' && c <= 'z') ? char(c - 'a' + 'A') : c; }
constexpr bool iequal(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (ascii_upper(a[i]) != ascii_upper(b[i])) return false;
    return true;
}
}  // namespace detail

// The tag's description in the context of `op_code` (0: no context), or
// nullptr for a tag the protocol does not define.
constexpr const TagInfo *find_tag(uint16_t tag, uint16_t op_code = 0) {
    if (op_code != 0)
        for (const auto &o : kTagOverrides)
            if (o.op_code == op_code && o.info.tag == tag) return &o.info;
    for (const auto &t : kTags)
        if (t.tag == tag) return &t;
    return nullptr;
}

// Look-up by name, case-insensitive. Names of the op code's overrides are
// tried first, then the common names (which work in every context).
constexpr const TagInfo *find_tag(std::string_view name, uint16_t op_code = 0) {
    if (op_code != 0)
        for (const auto &o : kTagOverrides)
            if (o.op_code == op_code && detail::iequal(o.info.name, name)) return &o.info;
    for (const auto &t : kTags)
        if (detail::iequal(t.name, name)) return &t;
    return nullptr;
}

namespace detail {
// Sorted, named, unique names; every override refines a known tag.
constexpr bool tag_tables_well_formed() {
    for (size_t i = 0; i < kTags.size(); ++i) {
        if (kTags[i].name.empty() || kTags[i].where.empty()) return false;
        if (i > 0 && kTags[i - 1].tag >= kTags[i].tag) return false;
        for (size_t j = i + 1; j < kTags.size(); ++j)
            if (iequal(kTags[i].name, kTags[j].name)) return false;
    }
    // Codes compared directly: sanitizer builds cannot fold pointer tests.
    for (const auto &o : kTagOverrides) {
        bool known_tag = false, known_op = false;
        for (const auto &t : kTags) known_tag = known_tag || t.tag == o.info.tag;
        for (const auto &r : kOpCodes) known_op = known_op || r.code == o.op_code;
        if (!known_tag || !known_op || o.info.name.empty()) return false;
    }
    return true;
}
static_assert(tag_tables_well_formed(), "tag tables: order, names or overrides broken");
}  // namespace detail

// Text values sent without their terminating NUL (op code 0: in every op code).
struct BareText {
    uint16_t op_code;
    uint16_t tag;
};
inline constexpr std::array<BareText, 2> kBareTexts{{
    {0, kTagSnmpCommunity},
    {kOpSetDeviceInfo, kTagFailureText},
}};

// How a tag's value goes on the wire in an op code's context (0: the common
// meaning): its kind and, for text, whether the NUL goes along.
struct TagForm {
    bool known;
    TagKind kind;
    bool nul;
    constexpr bool operator==(const TagForm &) const = default;
};

constexpr TagForm tag_form(uint16_t tag, uint16_t op_code) {
    bool nul = true;
    for (const auto &b : kBareTexts)
        if (b.tag == tag && (b.op_code == 0 || b.op_code == op_code)) nul = false;
    if (op_code != 0)
        for (const auto &o : kTagOverrides)
            if (o.op_code == op_code && o.info.tag == tag) return {true, o.info.kind, nul};
    for (const auto &t : kTags)
        if (t.tag == tag) return {true, t.kind, nul};
    return {false, TagKind::kBytes, true};
}

namespace detail {
void tag_not_in_table();  // never defined: reached only by a tag the table lacks
// Never defined: reached by a tag whose wire form differs by op code, used
// without one; bind it with .in<op code>().
void tag_form_depends_on_op_code();

constexpr bool bare_texts_well_formed() {
    for (const auto &b : kBareTexts)
        if (tag_form(b.tag, b.op_code).kind != TagKind::kText) return false;
    return true;
}
static_assert(bare_texts_well_formed(), "a text without NUL that is no text");
}  // namespace detail

// The wire form of a typed tag, decided at compile time. An unbound tag whose
// form differs in some op code does not compile: the table, not the caller,
// says which form an op code uses.
template <uint16_t N, uint16_t Op>
consteval TagForm tag_form(Tag<N, Op>) {
    const TagForm f = tag_form(N, Op);
    if (!f.known) detail::tag_not_in_table();
    if (Op == 0) {
        for (const auto &o : kTagOverrides)
            if (o.info.tag == N && !(tag_form(N, o.op_code) == f))
                detail::tag_form_depends_on_op_code();
        for (const auto &b : kBareTexts)
            if (b.tag == N && b.op_code != 0) detail::tag_form_depends_on_op_code();
    }
    return f;
}

// ---- result codes with their handlers' meanings ---------------------------

// Where `op_code` is 0 the meaning holds for every op code that returns it.
struct HandlerResultInfo {
    uint16_t code;
    uint16_t op_code;
    std::string_view meaning;
};

inline constexpr std::array<HandlerResultInfo, 20> kHandlerResults{{
    {kResultRadiusAddress, kOpSetSsidList, "RADIUS address type or address refused"},
    {kResultAuthFailed, kOpSetSnmp, "authentication failed or unsupported tag in the request"},
    {kResultAuthFailed, kOpSetIpv4, "authentication failed, address mode not 0 or unknown tag"},
    {kResultNtpLoopback, kOpSetDateTime, "NTP server 127.0.0.1 refused"},
    {kResultWirelessMode, kOpSetWirelessInfo, "wireless mode refused by the band"},
    {kResultAuthCode, kOpSetSsidList, "authentication code above 12"},
    {kResultCountry, kOpSetWirelessInfo, "unknown country index or country locked"},
    {kResultBadNewUserName, kOpChangeIdPassword, "new user name missing or not base64"},
    {kResultBadNewPassword, kOpChangeIdPassword, "new password missing or not base64"},
    {kResultSnmpPartial, kOpSetSnmp, "some SNMP items refused (see error mask)"},
    {kResultRefused, kOpSetSsidList, "higher precedence held by another manager, or out of memory"},
    {kResultRefusedHigh, kOpUserVerification, "higher precedence held by another manager"},
    {kResultRefusedHigh, kOpChangeIdPassword, "higher precedence held by another manager"},
    {kResultRefusedHigh, kOpSetSnmp, "parameter check failed"},
    {kResultRefusedHigh, kOpSetDateTime, "parameter check failed"},
    {kResultRefusedHigh, kOpSetSsidList, "parameter check failed, SSID index above 7 or passphrase length refused"},
    {kResultSuccess, 0, "success"},
    {kResultAuthFailed, 0, "authentication failed"},
    {kResultRefused, 0, "refused: higher precedence held by another manager, or parameter check failed"},
    {kResultRefusedHigh, 0, "refused: higher precedence held by another manager, or parameter check failed"},
}};

// What a result code means, for the op code when it has its own meaning.
// Empty for a code no handler returns.
constexpr std::string_view result_meaning(uint16_t code, uint16_t op_code = 0) {
    for (const auto &r : kHandlerResults)
        if (r.code == code && r.op_code == op_code && op_code != 0) return r.meaning;
    for (const auto &r : kHandlerResults)
        if (r.code == code && r.op_code == 0) return r.meaning;
    // A handler-specific code asked without (or with another) context.
    for (const auto &r : kHandlerResults)
        if (r.code == code) return r.meaning;
    return {};
}

}  // namespace tav
