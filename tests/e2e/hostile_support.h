// SPDX-License-Identifier: ISC
// Shared by the hostile-input, fault and security suites: which
// daemon build the lab runs, the daemon's memory and children as seen inside
// its access point, and a generator of malformed traffic.
#pragma once

#include <random>

#include "fuzz/requests.h"
#include "tests/e2e/e2e.h"

namespace e2e {

// The release build when it holds a daemon and the lab's stand-ins, else this
// build (a target named by TAVC_E2E_TARGET before either): the suites check
// the binary that ships. A sanitized build (the asan
// preset) runs its own daemon: there the point is what the sanitizers see.
#ifdef E2E_SANITIZED
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif
inline std::string daemon_build() {
    if (lab_build() != E2E_BUILD_DIR) return lab_build();
    const std::string rel = E2E_RELEASE_DIR;
    for (const char *f : {"/tavc/tavc", "/sim/xmldb/xmldb", "/sim/rgdb/rgdb", "/sim/cipher/TAV_Auth.so"})
        if (kSanitized || access((rel + f).c_str(), R_OK) != 0) return E2E_BUILD_DIR;
    return rel;
}

// Private dirty memory of the daemon in kB, or -1. An emulated daemon's own
// lies below the emulator's program: qemu maps the guest low, and its own
// memory (translated code grows with each new path) above.
inline long private_dirty_kb(const Lab &lab) {
    const std::string p = "/proc/$(cat /var/run/tavc.pid)";
    Sh r = lab.on_ap(1, emulated() ? "awk -v exe=\"$(readlink " + p + "/exe)\" '/^[0-9a-f]+-/ { a = sprintf(\"%16s\", "
                                     "substr($1, 1, index($1, \"-\") - 1)); gsub(/ /, \"0\", a); at[++n] = a; if ($NF == exe "
                                     "&& lim == \"\") lim = a } /^Private_Dirty:/ { kb[n] += $2 } END { for (i = 1; i <= n; "
                                     "i++) if (at[i] < lim) s += kb[i]; print s + 0 }' " + p + "/smaps"
                                   : "awk '/^Private_Dirty:/ {print $2}' " + p + "/smaps_rollup");
    return r.status == 0 && !r.out.empty() ? std::atol(r.out.c_str()) : -1;
}
// Pids of the daemon's children whose stat fields after the name ($1 state,
// $2 parent) satisfy an awk condition.
inline std::string daemon_children_cmd(const std::string &cond = "1") {
    return "p=$(cat /var/run/tavc.pid); cat /proc/[0-9]*/stat 2>/dev/null | "
           "awk -v p=\"$p\" '{ pid = $1; sub(/^.*\\) /, \"\"); if ($2 == p && (" + cond + ")) print pid }'";
}
inline std::string daemon_zombies(const Lab &lab) { return lab.on_ap(1, daemon_children_cmd("$1 == \"Z\"")).out; }
inline int daemon_children(const Lab &lab) { return std::atoi(lab.on_ap(1, daemon_children_cmd() + " | wc -l").out.c_str()); }

// Malformed and hostile messages, reproducible from a seed. Plaintexts go
// through the cipher (they reach the dispatcher); foreign bytes do not (they
// stop at the decipherer).
class HostileTraffic {
  public:
    explicit HostileTraffic(uint32_t seed) : rng_(seed) {
        for (const auto &t : tav::kTags)
            if (t.kind == tav::TagKind::kText) text_tags_.push_back(t.tag);
    }
    enum Kind { kTruncatedHeader, kLengthLie, kTlvPastBody, kLongText, kMutated, kRandomType, kKinds };
    static constexpr const char *kNames[] = {"truncated header", "body_length lie", "TLV past the body",
                                             "over-long text", "mutated request", "random type"};
    static constexpr const char *kWrongPassword = "hostile-not-the-password";

    Bytes plaintext(Kind k, bool ipv4) {
        const uint16_t op = tav::kOpCodes[next_op_++ % tav::kOpCodes.size()].code;
        const size_t hl = ipv4 ? tav::kIpv4HeaderLen : tav::kL2HeaderLen;
        TlvList tlvs = tav::requests::lead("admin", kWrongPassword);
        if (k == kLongText)  // texts that would matter if they reached a shell or a format
            tlvs.push_back(tav::client::tlv_text(text_tags_[next_text_++ % text_tags_.size()],
                                                 filler(pick(65, tav::kMaxPlainLen - hl - 5))));
        else
            for (auto &r : tav::requests::tags_of(op, "request")) tlvs.push_back(r);
        Bytes b = tav::client::build_request(ipv4, 0x4854, op, ipv4 ? tav::kZeroMac : tav::kBroadcastMac, {}, tlvs);
        const uint16_t real = uint16_t(b.size() - hl);
        switch (k) {
            case kTruncatedHeader: b.resize(pick(2, hl - 1)); break;
            case kLengthLie: {
                uint16_t lie = coin() ? uint16_t(real + pick(1, 0xFFFF - real)) : uint16_t(pick(0, real));
                tav::put_be16(b.data() + hl - 2, lie == real ? real + 1 : lie);
                break;
            }
            case kTlvPastBody: {  // a last record that claims more than is left (or a cut record header)
                Bytes tail{uint8_t(pick(0, 255)), uint8_t(pick(0, 255)), 0, 0, 'x', 'y'};
                tav::put_be16(tail.data() + 2, uint16_t(pick(3, 0xFFFF)));
                b.insert(b.end(), tail.begin(), tail.begin() + pick(1, tail.size()));
                tav::put_be16(b.data() + hl - 2, uint16_t(b.size() - hl));
                break;
            }
            case kLongText: b.resize(std::min(b.size(), tav::kMaxPlainLen)); break;  // body_length may lie too
            case kMutated:
                for (int n = int(pick(1, 8)); n > 0; --n) b[pick(0, b.size() - 1)] = uint8_t(pick(0, 255));
                break;
            default: return random_bytes(pick(2, 64));
        }
        return b;
    }
    Bytes any_plaintext() { return plaintext(Kind(pick(0, kKinds - 1)), coin()); }
    // Bytes that do not decipher: random, or another protocol's packet.
    Bytes foreign(size_t max) {
        static const Bytes kArp = {0, 1, 8, 0, 6, 4, 0, 1, 2, 0x7a, 0x76, 0, 0, 0xfe, 192, 0, 2, 1, 0, 0, 0, 0, 0, 0, 192, 0, 2, 11};
        static const Bytes kIpv4Udp = {0x45, 0, 0, 28, 0, 0, 0x40, 0, 64, 17, 0, 0, 192, 0, 2, 1,
                                       192, 0, 2, 11, 0x9c, 0x40, 0xf6, 0x00, 0, 8, 0, 0};
        const size_t k = pick(0, 3);
        return k == 0 ? kArp : k == 1 ? kIpv4Udp : random_bytes(pick(0, max));
    }
    size_t pick(size_t lo, size_t hi) { return std::uniform_int_distribution<size_t>(lo, hi)(rng_); }
    bool coin() { return pick(0, 1) == 1; }
    Bytes random_bytes(size_t n) {
        Bytes b(n);
        for (auto &x : b) x = uint8_t(pick(0, 255));
        return b;
    }

  private:
    std::string filler(size_t n) {
        static const char *const kBits[] = {"$(reboot)", "`reboot`", "'", "\"", "%n%s%x", ";reboot;", "\\", "A"};
        std::string s;
        while (s.size() < n) s += kBits[pick(0, std::size(kBits) - 1)];
        return s.substr(0, n);
    }
    std::mt19937 rng_;
    std::vector<uint16_t> text_tags_;
    size_t next_op_ = 0, next_text_ = 0;
};

// What a flood sent, by path and kind, and the discoveries asked again.
struct Counts {
    long raw = 0, udp = 0, enciphered = 0, foreign = 0, empty = 0, max_size = 0, unanswered = 0;
    long kinds[HostileTraffic::kKinds] = {};
    long total() const { return raw + udp; }
};

// Both discoveries answered. A raw frame that arrives with a datagram at the
// same wake-up is dropped (only the datagram is served): UDP first, and one
// lost all the same is asked again.
inline bool discovered(Client &raw, Client &udp, Counts &n) {
    bool ok = true;
    for (Client *c : {&udp, &raw}) {
        auto r = c->request(tav::kOpDiscovery, {}, 2s, 1);
        for (auto window : {10s, 20s, 60s}) {
            if (r && r->size() == 1) break;
            ++n.unanswered, r = c->request(tav::kOpDiscovery, {}, window, 1);
        }
        ok = ok && r && r->size() == 1;
        c->receive_all(0ms);  // replies to the flood itself: not kept
    }
    return ok;
}

// One burst (paced by a discovery on each path after it): foreign bytes and malformed plaintexts over both paths, then a
// zero-length datagram and the largest datagram and frame.
inline void burst(HostileTraffic &gen, Client &raw, Client &udp, Counts &n) {
    for (int i = 0; i < 100; ++i) {
        const bool via_udp = gen.coin();
        Client &c = via_udp ? udp : raw;
        bool ok;
        if (gen.pick(0, 9) < 5) {
            ok = bool(c.transport().send(gen.foreign(via_udp ? 1472 : 1500)));
            n.foreign += ok;
        } else {
            const auto kind = HostileTraffic::Kind(gen.pick(0, HostileTraffic::kKinds - 1));
            ok = bool(c.send_plaintext(gen.plaintext(kind, gen.coin())));
            n.enciphered += ok, n.kinds[kind] += ok;
        }
        (via_udp ? n.udp : n.raw) += ok;
    }
    if (udp.transport().send({})) ++n.udp, ++n.empty;
    if (udp.transport().send(gen.random_bytes(65507))) ++n.udp, ++n.max_size;
    if (raw.transport().send(gen.random_bytes(1500))) ++n.raw, ++n.max_size;
}

}  // namespace e2e
