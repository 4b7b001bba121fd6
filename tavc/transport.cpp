// SPDX-License-Identifier: ISC
// Sockets, frames and the binding to the cipher library.
#include <arpa/inet.h>
#include <dlfcn.h>
#include <errno.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netpacket/packet.h>  // sockaddr_ll from the C library: musl has no kernel headers
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "proto/wire.h"
#include "platform/netio.h"
#include "tavc/identity.h"
#include "tavc/registry.h"
#include "tavc/transport.h"
#include "tavc/trace.h"

int tav_l2_fd = -1;
int tav_l3_fd = -1;
static void *handle;  // the cipher library, open for the daemon's life
tav_encode_fn tav_encode;
tav_decode_fn tav_decode;
tav_get_encrypted_msg_len_fn tav_get_encrypted_msg_len;
tav_get_decrypted_msg_len_fn tav_get_decrypted_msg_len;

// One outgoing frame at a time: Ethernet header, selector, ciphertext. The
// datagram path uses the same storage after the Ethernet header.
static uint8_t g_frame[tav::kEthHeaderLen + kTavEncodedMax];

// ---- sockets --------------------------------------------------------------

int mcast_join(int fd, const struct sockaddr *group, socklen_t len) {
    if (len > sizeof(sockaddr_storage)) {
        errno = EINVAL;
        return -1;
    }
    group_req req;
    memset(&req, 0, sizeof req);
    req.gr_interface = 0;
    memcpy(&req.gr_group, group, len);
    return setsockopt(fd, IPPROTO_IP, MCAST_JOIN_GROUP, &req, sizeof req);
}

void init_socket() {
    // Not bound to an interface: requests of this EtherType come in on any.
    tav_l2_fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(tav::kEtherType));
    if (tav_l2_fd < 0) {
        perror("Create raw socket error");
        exit(1);
    }
    tav_l3_fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (tav_l3_fd < 0) {
        perror("Create udp socket error");
        exit(1);
    }
    int on = 1;
    (void)setsockopt(tav_l3_fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in local;
    memset(&local, 0, sizeof local);
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = htonl(INADDR_ANY);
    local.sin_port = htons(tav::kUdpPort);
    (void)bind(tav_l3_fd, reinterpret_cast<sockaddr *>(&local), sizeof local);

    sockaddr_in group;
    memset(&group, 0, sizeof group);
    group.sin_family = AF_INET;
    group.sin_port = 0;
    inet_pton(AF_INET, tav::kMcastGroup, &group.sin_addr);
    if (mcast_join(tav_l3_fd, reinterpret_cast<sockaddr *>(&group), sizeof group) < 0)
        perror("Join multicast group failed");
}

void close_socket() {
    close(tav_l2_fd);
    close(tav_l3_fd);
}

int get_mac_from_arp_cache() {
    arpreq req;
    memset(&req, 0, sizeof req);
    sockaddr_in *pa = reinterpret_cast<sockaddr_in *>(&req.arp_pa);
    pa->sin_family = AF_INET;
    pa->sin_addr = tav_tmp_server->addr.sin_addr;
    strncpy(req.arp_dev, tav::kInterface, sizeof req.arp_dev - 1);
    if (ioctl(tav_l3_fd, SIOCGARP, &req) < 0) return -1;
    memcpy(tav_tmp_server->mac, req.arp_ha.sa_data, 6);
    return 0;
}

// ---- sending ----------------------------------------------------------------

int send_msg_L2(const uint8_t *plain, uint16_t len) {
    uint8_t *f = g_frame;
    memset(f, 0xFF, 6);
    if (device_info)
        memcpy(f + 6, device_info->mac, 6);
    else
        memset(f + 6, 0, 6);
    tav::put_be16(f + 12, tav::kEtherType);
    uint16_t n = 0;
    if (tav_encode_buf(plain, len, f + tav::kEthHeaderLen, &n) != 0) return -1;

    ifreq ifr;
    memset(&ifr, 0, sizeof ifr);
    strncpy(ifr.ifr_name, tav::kInterface, IFNAMSIZ - 1);
    (void)ioctl(tav_l2_fd, SIOCGIFINDEX, &ifr);
    sockaddr_ll to;
    memset(&to, 0, sizeof to);
    to.sll_family = AF_PACKET;
    to.sll_protocol = htons(tav::kEtherType);
    to.sll_ifindex = ifr.ifr_ifindex;
    (void)tavc_sendto(tav_l2_fd, f, size_t(n) + tav::kEthHeaderLen,
                      reinterpret_cast<sockaddr *>(&to), sizeof to);
    return 0;
}

int send_msg_L4(const uint8_t *plain, uint16_t len) {
    uint8_t *out = g_frame + tav::kEthHeaderLen;
    uint16_t n = 0;
    if (tav_encode_buf(plain, len, out, &n) != 0) {
        puts("tav_encode_buf failed");
        return -1;
    }
    (void)tavc_sendto(tav_l3_fd, out, n, reinterpret_cast<sockaddr *>(&tav_tmp_server->addr),
                      tav_tmp_server->addr_len);
    return 0;
}

// ---- cipher binding -----------------------------------------------------------

template <typename Fn>
static void bind_symbol(Fn &slot, const char *name, const char *message) {
    slot = reinterpret_cast<Fn>(dlsym(handle, name));
    if (dlerror() != nullptr) {
        printf(message, "init_tav_lib");
        exit(1);
    }
}

void init_tav_lib() {
    handle = dlopen(tav::kCipherPath, RTLD_LAZY);
    if (handle == nullptr) {
        printf("%s, dlopen error\n", "init_tav_lib");
        exit(1);
    }
    dlerror();
    bind_symbol(tav_encode, TAV_SYM_ENCODE, "%s, dlsym encode error\n");
    bind_symbol(tav_decode, TAV_SYM_DECODE, "%s, dlsym decode error\n");
    bind_symbol(tav_get_encrypted_msg_len, TAV_SYM_ENC_LEN,
                "%s, dlsym TAV_get_encrypted_msg_len error\n");
    bind_symbol(tav_get_decrypted_msg_len, TAV_SYM_DEC_LEN,
                "%s, dlsym TAV_get_decrypted_msg_len error\n");
}

void close_tav_lib() { dlclose(handle); }

// `out` must hold kTavEncodedMax bytes. The library writes its ciphertext
// straight after the selector, so no per-message buffer is needed.
int tav_encode_buf(const uint8_t *plain, uint16_t len, uint8_t *out, uint16_t *out_len) {
    if (plain == nullptr || out == nullptr) return -1;
    tav_buf in{const_cast<uint8_t *>(plain), len};
    int size = tav_get_encrypted_msg_len(len);
    if (size > int(tav::kMaxCipherLen)) {
        printf("%s, message too long\n", "tav_encode_buf");
        return -1;
    }
    if (size < 0) {  // no buffer of that size can exist
        printf("%s, calloc failed\n", "tav_encode_buf");
        return -1;
    }
    uint8_t *cipher = out + tav::kSelectorLen;
    memset(cipher, 0, size_t(size));
    tav_buf res{cipher, uint16_t(size)};
    uint16_t selector = 0;
    int rc = tav_encode(0, &in, &res, &selector);
    if (rc != 0) {
        printf("%s, tav_encode failed:%d\n", "tav_encode_buf", rc);
        return -1;
    }
    // A library that claims more than the room it was given is not trusted.
    if (res.length > size) {
        printf("%s, message too long\n", "tav_encode_buf");
        return -1;
    }
    if (res.data != cipher) memmove(cipher, res.data, res.length);
    tav::put_be16(out, selector);
    *out_len = uint16_t(res.length + tav::kSelectorLen);
    return 0;
}

static void dump_bytes(const char *func, int line, const char *label, const uint8_t *p,
                       size_t n) {
    tav_debug_raw(func, line, "%s", label);
    for (size_t i = 0; i < n; ++i) fprintf(stderr, "%02x ", p[i]);
    fputc('\n', stderr);
}

// `out` must hold kMaxPlainLen (1024) bytes.
int tav_decode_buf(uint16_t selector, const uint8_t *cipher, uint16_t len, uint8_t *out,
                   uint16_t *out_len) {
    if (cipher == nullptr || out == nullptr) return -1;
    bool trace = tav_debug_enabled();
    if (trace) dump_bytes(__func__, __LINE__, "before decode content is:", cipher, len);
    tav_buf in{const_cast<uint8_t *>(cipher), len};
    unsigned size = unsigned(tav_get_decrypted_msg_len(cipher, len));
    if (size > tav::kMaxPlainLen) return -1;
    memset(out, 0, tav::kMaxPlainLen);
    tav_buf res{out, uint16_t(size)};
    int rc = tav_decode(selector, &in, &res);
    if (rc != 0) {
        if (trace) tav_debug_raw(__func__, __LINE__, "%s, tav_decode failed:%d\n", "tav_decode_buf", rc);
        return -1;
    }
    if (res.length > tav::kMaxPlainLen) return -1;
    if (res.data != out) memmove(out, res.data, res.length);
    if (trace) dump_bytes(__func__, __LINE__, "after decode content is:", out, res.length);
    *out_len = res.length;
    return 0;
}
