// SPDX-License-Identifier: ISC
// The TAV wire format: frame and header layouts, message types, op codes,
// result codes and the TLV codec. The daemon, the manager tool, the tests and
// the fuzzers all include this file; nothing else defines these numbers.
//
// Header-only and free of exceptions, RTTI and allocation, so the daemon can
// use it without pulling in libstdc++. All wire integers are big-endian and
// are read and written byte by byte, so the code is the same on any host.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <string_view>

namespace tav {

// ---- transport ------------------------------------------------------------

inline constexpr uint16_t kEtherType = 0x2386;
inline constexpr uint16_t kUdpPort = 62976;  // 0xF600
inline constexpr const char *kMcastGroup = "224.0.0.1";
// A firmware build may name its bridge and cipher library otherwise
// (CMake: TAVC_BRIDGE_IFACE, TAVC_CIPHER_PATH); nothing at run time can.
#ifndef TAVC_BRIDGE_IFACE
#define TAVC_BRIDGE_IFACE "br0"
#endif
#ifndef TAVC_CIPHER_PATH
#define TAVC_CIPHER_PATH "/usr/lib/TAV_Auth.so"
#endif
static_assert(sizeof(TAVC_BRIDGE_IFACE) <= 16, "an interface name has at most 15 characters");
inline constexpr const char *kInterface = TAVC_BRIDGE_IFACE;
inline constexpr const char *kCipherPath = TAVC_CIPHER_PATH;

inline constexpr size_t kEthHeaderLen = 14;
inline constexpr size_t kSelectorLen = 2;
inline constexpr size_t kMaxCipherLen = 65507;  // also the receive buffer
inline constexpr size_t kMaxPlainLen = 1024;    // largest plaintext accepted
inline constexpr size_t kRecvBufLen = 65507;
inline constexpr size_t kReplyArea = 65490;  // TLV area of a reply body
inline constexpr uint16_t kVersion = 5;

// ---- byte order -----------------------------------------------------------

constexpr uint16_t get_be16(const uint8_t *p) { return uint16_t(p[0] << 8 | p[1]); }
constexpr uint32_t get_be32(const uint8_t *p) {
    return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}
constexpr void put_be16(uint8_t *p, uint16_t v) {
    p[0] = uint8_t(v >> 8);
    p[1] = uint8_t(v);
}
constexpr void put_be32(uint8_t *p, uint32_t v) {
    p[0] = uint8_t(v >> 24);
    p[1] = uint8_t(v >> 16);
    p[2] = uint8_t(v >> 8);
    p[3] = uint8_t(v);
}
constexpr uint64_t get_be64(const uint8_t *p) {
    return uint64_t(get_be32(p)) << 32 | get_be32(p + 4);
}
constexpr void put_be64(uint8_t *p, uint64_t v) {
    put_be32(p, uint32_t(v >> 32));
    put_be32(p + 4, uint32_t(v));
}

using Mac = std::array<uint8_t, 6>;
inline constexpr Mac kBroadcastMac{0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
inline constexpr Mac kZeroMac{};

// ---- message types --------------------------------------------------------

enum MsgType : uint16_t {
    kMsgL2Request = 0x7DFD,
    kMsgL2Reply = 0x7EEE,
    kMsgIpv4Request = 0xFDFD,
    kMsgIpv4Reply = 0xFEEE,
    kMsgIpv6Request = 0x0DFD,
    kMsgAnnounce = 0x7FFF,  // the device's own report, hello and bye
};

// Types that are dropped without a word (everything else is "unknown").
inline constexpr std::array<uint16_t, 6> kSilentMsgTypes{
    kMsgL2Reply, kMsgIpv4Reply, kMsgAnnounce, 0x0EEE, 0x0FFF, 0xFFFF};

// ---- header ---------------------------------------------------------------

inline constexpr size_t kL2HeaderLen = 18;
inline constexpr size_t kIpv4HeaderLen = 22;

// Both header forms decoded into one record; `ipv4` tells which form.
struct Header {
    bool ipv4 = false;
    uint16_t msg_type = 0;
    uint16_t sequence = 0;
    uint16_t op_code = 0;
    Mac target_mac{};
    std::array<uint8_t, 4> target_ip{};  // network order; IPv4 form only
    uint16_t result = 0;
    uint16_t version = 0;
    uint16_t body_length = 0;

    constexpr size_t size() const { return ipv4 ? kIpv4HeaderLen : kL2HeaderLen; }
};

// Which form a message type uses: the IPv4 form for 0xFDFD/0xFEEE.
constexpr bool is_ipv4_form(uint16_t msg_type) {
    return msg_type == kMsgIpv4Request || msg_type == kMsgIpv4Reply;
}

// Writes the header at `out` (which must hold h.size() bytes).
constexpr void encode_header(const Header &h, uint8_t *out) {
    put_be16(out, h.msg_type);
    put_be16(out + 2, h.sequence);
    put_be16(out + 4, h.op_code);
    for (size_t i = 0; i < 6; ++i) out[6 + i] = h.target_mac[i];
    size_t o = 12;
    if (h.ipv4) {
        for (size_t i = 0; i < 4; ++i) out[12 + i] = h.target_ip[i];
        o = 16;
    }
    put_be16(out + o, h.result);
    put_be16(out + o + 2, h.version);
    put_be16(out + o + 4, h.body_length);
}

// Decodes a header in the form given by `ipv4`. Empty when the plaintext is
// shorter than the header or its body_length runs past the plaintext.
constexpr std::optional<Header> decode_header(std::span<const uint8_t> msg, bool ipv4) {
    Header h;
    h.ipv4 = ipv4;
    if (msg.size() < h.size()) return std::nullopt;
    const uint8_t *p = msg.data();
    h.msg_type = get_be16(p);
    h.sequence = get_be16(p + 2);
    h.op_code = get_be16(p + 4);
    for (size_t i = 0; i < 6; ++i) h.target_mac[i] = p[6 + i];
    size_t o = 12;
    if (ipv4) {
        for (size_t i = 0; i < 4; ++i) h.target_ip[i] = p[12 + i];
        o = 16;
    }
    h.result = get_be16(p + o);
    h.version = get_be16(p + o + 2);
    h.body_length = get_be16(p + o + 4);
    if (h.body_length > msg.size() - h.size()) return std::nullopt;
    return h;
}

// Decodes by the message type's own form.
constexpr std::optional<Header> decode_header(std::span<const uint8_t> msg) {
    if (msg.size() < 2) return std::nullopt;
    return decode_header(msg, is_ipv4_form(get_be16(msg.data())));
}

// ---- op codes -------------------------------------------------------------

struct OpCodeInfo {
    uint16_t code;
    std::string_view handler;  // the handler's name on the device
    bool allowed_when_managed;  // served while the management agent runs
};

// The dispatch table's rows, in the order the device searches them.
inline constexpr std::array<OpCodeInfo, 31> kOpCodes{{
    {0x00A0, "tav_report", false},
    {0x00A1, "tav_discovery", true},
    {0x00A3, "tav_user_verification", true},
    {0x00A4, "tav_change_ID_and_password", false},
    {0x00AA, "tav_reset", true},
    {0x00AB, "tav_reset_factory_settings", true},
    {0x00DA, "tav_get_snmp_configuration", true},
    {0x00D4, "tav_set_snmp_configuration", false},
    {0x00E0, "tav_information_func", true},
    {0x00E1, "tav_set_ipv4_address", true},
    {0x00E3, "tav_set_device_information", false},
    {0x00E4, "tav_get_device_date_time", false},
    {0x00E5, "tav_set_device_date_time", false},
    {0x00E6, "tav_set_ag_profile", true},
    {0x0100, "tav_firmware_upgrade", false},
    {0x0101, "tav_configuration_backup", false},
    {0x0102, "tav_configuration_restore", false},
    {0x0103, "tav_reboot", true},
    {0x0104, "tav_hello", false},
    {0x0105, "tav_bye", false},
    {0x00A5, "tav_query_supported_optional_functions", true},
    {0x2003, "tav_get_device_status", true},
    {0x2004, "tav_get_ssid_list", true},
    {0x2005, "tav_set_ssid_list", false},
    {0x2006, "tav_get_wireless_information", true},
    {0x2007, "tav_set_wireless_information", false},
    {0x2008, "tav_get_client_list", true},
    {0x2009, "tav_get_ap_array_information", false},
    {0x200A, "tav_set_ap_array_information", false},
    {0x200B, "tav_get_ap_array_device_list", false},
    {0x200C, "tav_set_ap_array_member_list", false},
}};

enum OpCode : uint16_t {
    kOpReport = 0x00A0,
    kOpDiscovery = 0x00A1,
    kOpUserVerification = 0x00A3,
    kOpChangeIdPassword = 0x00A4,
    kOpReset = 0x00AA,
    kOpResetFactory = 0x00AB,
    kOpGetSnmp = 0x00DA,
    kOpSetSnmp = 0x00D4,
    kOpInformation = 0x00E0,
    kOpSetIpv4 = 0x00E1,
    kOpSetDeviceInfo = 0x00E3,
    kOpGetDateTime = 0x00E4,
    kOpSetDateTime = 0x00E5,
    kOpSetAgProfile = 0x00E6,
    kOpFirmwareUpgrade = 0x0100,
    kOpConfigBackup = 0x0101,
    kOpConfigRestore = 0x0102,
    kOpReboot = 0x0103,
    kOpHello = 0x0104,
    kOpBye = 0x0105,
    kOpSupportedFunctions = 0x00A5,
    kOpGetDeviceStatus = 0x2003,
    kOpGetSsidList = 0x2004,
    kOpSetSsidList = 0x2005,
    kOpGetWirelessInfo = 0x2006,
    kOpSetWirelessInfo = 0x2007,
    kOpGetClientList = 0x2008,
    kOpGetApArrayInfo = 0x2009,
    kOpSetApArrayInfo = 0x200A,
    kOpGetApArrayDeviceList = 0x200B,
    kOpSetApArrayMemberList = 0x200C,
};

// Left out of the supported-functions answer: they are always there.
inline constexpr std::array<uint16_t, 4> kNotAdvertised{kOpDiscovery, kOpUserVerification,
                                                        kOpChangeIdPassword,
                                                        kOpSupportedFunctions};

constexpr const OpCodeInfo *find_op_code(uint16_t code) {
    for (const auto &row : kOpCodes)
        if (row.code == code) return &row;
    return nullptr;
}

// Listed in the supported-functions answer (0xA5): every row but four.
constexpr bool is_advertised(uint16_t code) {
    if (find_op_code(code) == nullptr) return false;
    for (uint16_t c : kNotAdvertised)
        if (c == code) return false;
    return true;
}

// ---- result codes ---------------------------------------------------------

enum Result : uint16_t {
    kResultSuccess = 0,
    kResultAuthFailed = 0x0040,
    kResultRefused = 0xFFFD,
    kResultRefusedHigh = 0xFFFF,
    // Codes of single handlers (meanings in proto/tags.h, kHandlerResults).
    kResultRadiusAddress = 2,       // 0x2005
    kResultNtpLoopback = 105,       // 0xE5
    kResultWirelessMode = 204,      // 0x2007
    kResultAuthCode = 206,          // 0x2005
    kResultCountry = 218,           // 0x2007
    kResultBadNewUserName = 1001,   // 0xA4
    kResultBadNewPassword = 1011,   // 0xA4
    kResultSnmpPartial = 2002,      // 0xD4
};

struct ResultInfo {
    uint16_t code;
    std::string_view meaning;
};

inline constexpr std::array<ResultInfo, 4> kResults{{
    {kResultSuccess, "success"},
    {kResultAuthFailed, "authentication failed"},
    {kResultRefused, "refused (parameter check or higher precedence)"},
    {kResultRefusedHigh, "refused (higher precedence or parameter check)"},
}};

// ---- TLV codec ------------------------------------------------------------

inline constexpr size_t kTlvHeadLen = 4;

// Appends one record at *pos, as the device does: 0, or 0xFFFF without
// writing when a pointer is null or the record would exceed the reply area.
// Callers keep *pos == *end. The area bound for the whole reply is the
// caller's (TlvWriter below keeps it).
inline uint16_t tlv_add(const void *value, uint8_t **pos, uint8_t **end, uint16_t tag,
                        uint16_t length) {
    if (value == nullptr || pos == nullptr || end == nullptr || *pos == nullptr ||
        *end == nullptr)
        return 0xFFFF;
    if (size_t(length) + kTlvHeadLen > kReplyArea) return 0xFFFF;
    uint8_t *p = *end;
    put_be16(p, tag);
    put_be16(p + 2, length);
    if (length != 0) std::memcpy(p + 4, value, length);
    *end = p + length + kTlvHeadLen;
    *pos = *end;
    return 0;
}

// Appends records into a fixed area and never writes past it. `reserve`
// keeps room for a closing record that a list must still get.
class TlvWriter {
  public:
    explicit constexpr TlvWriter(std::span<uint8_t> area) : area_(area) {}

    // False (and nothing written) when the record does not fit.
    bool add(uint16_t tag, const void *value, uint16_t length, size_t reserve = 0) {
        if (!fits(length, reserve)) return false;
        uint8_t *pos = area_.data() + used_;
        uint8_t *end = pos;
        if (tlv_add(value, &pos, &end, tag, length) != 0) return false;
        used_ = size_t(end - area_.data());
        return true;
    }
    bool add_u8(uint16_t tag, uint8_t v, size_t reserve = 0) { return add(tag, &v, 1, reserve); }
    bool add_be16(uint16_t tag, uint16_t v, size_t reserve = 0) {
        uint8_t b[2];
        put_be16(b, v);
        return add(tag, b, 2, reserve);
    }
    bool add_be32(uint16_t tag, uint32_t v, size_t reserve = 0) {
        uint8_t b[4];
        put_be32(b, v);
        return add(tag, b, 4, reserve);
    }
    // Text goes with its terminating NUL counted in the length.
    bool add_text(uint16_t tag, const char *s, size_t reserve = 0) {
        size_t n = std::strlen(s) + 1;
        if (n > 0xFFFF) return false;
        return add(tag, s, uint16_t(n), reserve);
    }

    constexpr bool fits(size_t length, size_t reserve = 0) const {
        return used_ + kTlvHeadLen + length + reserve <= area_.size();
    }
    constexpr size_t size() const { return used_; }
    constexpr std::span<const uint8_t> bytes() const { return area_.first(used_); }

  private:
    std::span<uint8_t> area_;
    size_t used_ = 0;
};

struct Tlv {
    uint16_t tag;
    uint16_t length;                // as declared
    std::span<const uint8_t> value;  // the declared bytes (within the body)
};

// Reads records in order, each advanced by its declared length; stops, as the
// device's walk does, below 5 bytes left or when a length runs past the body.
class TlvReader {
  public:
    explicit constexpr TlvReader(std::span<const uint8_t> body) : rest_(body) {}

    constexpr std::optional<Tlv> next() {
        if (rest_.size() < kTlvHeadLen + 1) return std::nullopt;
        uint16_t tag = get_be16(rest_.data());
        uint16_t len = get_be16(rest_.data() + 2);
        if (size_t(len) + kTlvHeadLen > rest_.size()) return std::nullopt;
        Tlv t{tag, len, rest_.subspan(kTlvHeadLen, len)};
        rest_ = rest_.subspan(kTlvHeadLen + len);
        return t;
    }
    // Bytes not consumed when next() stopped.
    constexpr std::span<const uint8_t> rest() const { return rest_; }

  private:
    std::span<const uint8_t> rest_;
};

// Records of a reply body, for the tools: a trailing 4-byte record with an
// empty value is legal there, so this reader stops only below 4 bytes.
class ReplyReader {
  public:
    explicit constexpr ReplyReader(std::span<const uint8_t> body) : rest_(body) {}
    constexpr std::optional<Tlv> next() {
        if (rest_.size() < kTlvHeadLen) return std::nullopt;
        uint16_t tag = get_be16(rest_.data());
        uint16_t len = get_be16(rest_.data() + 2);
        if (size_t(len) + kTlvHeadLen > rest_.size()) return std::nullopt;
        Tlv t{tag, len, rest_.subspan(kTlvHeadLen, len)};
        rest_ = rest_.subspan(kTlvHeadLen + len);
        return t;
    }
    constexpr bool truncated() const { return !rest_.empty(); }

  private:
    std::span<const uint8_t> rest_;
};

}  // namespace tav
