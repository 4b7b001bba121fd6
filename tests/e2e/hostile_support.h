// Shared by the hostile-input and fault suites: which daemon build the lab
// runs, the daemon's memory and children as seen inside its access point,
// and a generator of malformed traffic.
#pragma once

#include <unistd.h>

#include <random>

#include "fuzz/requests.h"
#include "tests/e2e/e2e.h"

namespace e2e {

// The release build when it holds a daemon and the lab's stand-ins, else this
// build: the suites check the binary that ships. A sanitized build (the asan preset) runs its own daemon instead: there the
// point is what the sanitizers see under the same traffic.
#ifdef E2E_SANITIZED
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif
inline std::string daemon_build() {
#ifdef E2E_SANITIZED
    return E2E_BUILD_DIR;
#endif
    const std::string rel = E2E_RELEASE_DIR;
    for (const char *f : {"/tavc/tavc", "/sim/xmldb/xmldb", "/sim/rgdb/rgdb", "/sim/cipher/TAV_Auth.so"})
        if (access((rel + f).c_str(), R_OK) != 0) return E2E_BUILD_DIR;
    return rel;
}

// Private dirty memory of the daemon in kB (smaps_rollup), or -1.
inline long private_dirty_kb(const Lab &lab, int ap = 1) {
    Sh r = lab.on_ap(ap, "awk '/^Private_Dirty:/ {print $2}' /proc/$(cat /var/run/tavc.pid)/smaps_rollup");
    return r.status == 0 && !r.out.empty() ? std::atol(r.out.c_str()) : -1;
}

// Pids of the daemon's children (inside its access point) whose stat fields
// after the name ($1 state, $2 parent) satisfy an awk condition.
inline std::string daemon_children_cmd(const std::string &cond = "1") {
    return "p=$(cat /var/run/tavc.pid); cat /proc/[0-9]*/stat 2>/dev/null | "
           "awk -v p=\"$p\" '{ pid = $1; sub(/^.*\\) /, \"\"); if ($2 == p && (" +
           cond + ")) print pid }'";
}

inline std::string daemon_zombies(const Lab &lab, int ap = 1) {
    return lab.on_ap(ap, daemon_children_cmd("$1 == \"Z\"")).out;
}

inline int daemon_children(const Lab &lab, int ap = 1) {
    Sh r = lab.on_ap(ap, daemon_children_cmd() + " | wc -l");
    return std::atoi(r.out.c_str());
}

// Malformed and hostile messages, reproducible from a seed. Plaintexts go
// through the cipher (they reach the dispatcher); raw payloads do not (they
// stop at the decipherer).
class HostileTraffic {
  public:
    explicit HostileTraffic(uint32_t seed) : rng_(seed) {
        for (const auto &t : tav::kTags)
            if (t.kind == tav::TagKind::kText) text_tags_.push_back(t.tag);
    }

    enum Kind { kTruncatedHeader, kLengthLie, kTlvPastBody, kLongText, kMutated, kRandomType, kKinds };
    static const char *name(int k) {
        static const char *const n[] = {"truncated header", "body_length lie", "TLV past the body",
                                        "over-long text", "mutated request", "random type"};
        return n[k];
    }

    Bytes plaintext(Kind k, bool ipv4) {
        const uint16_t op = next_op();
        switch (k) {
            case kTruncatedHeader: {
                Bytes b = request(ipv4, op, {});
                b.resize(pick(2, b.size() - 1));
                return b;
            }
            case kLengthLie: {
                Bytes b = request(ipv4, op, tav::requests::tags_of(op, "request"));
                const size_t hl = ipv4 ? tav::kIpv4HeaderLen : tav::kL2HeaderLen;
                const uint16_t real = uint16_t(b.size() - hl);
                uint16_t lie = coin() ? uint16_t(real + pick(1, 0xFFFF - real)) : uint16_t(pick(0, real));
                if (lie == real) lie = uint16_t(real + 1);
                tav::put_be16(b.data() + hl - 2, lie);
                return b;
            }
            case kTlvPastBody: {
                TlvList tlvs = tav::requests::tags_of(op, "request");
                Bytes b = request(ipv4, op, tlvs);
                // The last record claims more than is left (or the header is cut).
                const uint16_t tag = tlvs.empty() ? uint16_t(pick(0, 0xFFFF)) : tlvs.back().tag;
                Bytes tail{uint8_t(tag >> 8), uint8_t(tag), 0, 0, 'x', 'y'};
                tav::put_be16(tail.data() + 2, uint16_t(pick(3, 0xFFFF)));
                tail.resize(pick(1, tail.size()));
                return with_body_appended(b, ipv4, tail);
            }
            case kLongText: {
                const uint16_t tag = text_tags_[next_text_++ % text_tags_.size()];
                const size_t hl = ipv4 ? tav::kIpv4HeaderLen : tav::kL2HeaderLen;
                std::string s = filler(pick(65, tav::kMaxPlainLen - hl - 4 - 1));
                TlvList tlvs = tav::requests::lead("admin", kWrongPassword);
                tlvs.push_back(tav::client::tlv_text(tag, s));
                Bytes b = request(ipv4, op, tlvs);
                if (b.size() > tav::kMaxPlainLen) b.resize(tav::kMaxPlainLen);  // body_length now lies too
                return b;
            }
            case kMutated: {
                TlvList tlvs = tav::requests::lead("admin", kWrongPassword);
                for (auto &r : tav::requests::tags_of(op, "request")) tlvs.push_back(r);
                Bytes b = request(ipv4, op, tlvs);
                for (int n = int(pick(1, 8)); n > 0; --n) b[pick(0, b.size() - 1)] = uint8_t(pick(0, 255));
                return b;
            }
            case kRandomType:
            case kKinds: break;
        }
        return random_bytes(pick(2, 64));
    }

    // Bytes that do not decipher: random, or another protocol's packet.
    Bytes foreign(size_t max) {
        static const Bytes kArp = {0x00, 0x01, 0x08, 0x00, 0x06, 0x04, 0x00, 0x01, 0x02, 0x7a,
                                   0x76, 0x00, 0x00, 0xfe, 192, 0, 2, 1, 0, 0, 0, 0, 0, 0, 192, 0, 2, 11};
        static const Bytes kIpv4Udp = {0x45, 0, 0, 28, 0, 0, 0x40, 0, 64, 17, 0, 0, 192, 0, 2, 1,
                                       192, 0, 2, 11, 0x9c, 0x40, 0xf6, 0x00, 0, 8, 0, 0};
        switch (pick(0, 3)) {
            case 0: return kArp;
            case 1: return kIpv4Udp;
            default: return random_bytes(pick(0, max));
        }
    }

    static constexpr const char *kWrongPassword = "hostile-not-the-password";
    size_t pick(size_t lo, size_t hi) { return std::uniform_int_distribution<size_t>(lo, hi)(rng_); }
    bool coin() { return pick(0, 1) == 1; }
    Bytes random_bytes(size_t n) {
        Bytes b(n);
        for (auto &x : b) x = uint8_t(pick(0, 255));
        return b;
    }

  private:
    uint16_t next_op() { return tav::kOpCodes[next_op_++ % tav::kOpCodes.size()].code; }
    static Bytes request(bool ipv4, uint16_t op, const TlvList &tlvs) {
        return tav::client::build_request(ipv4, 0x4854, op, ipv4 ? tav::kZeroMac : tav::kBroadcastMac,
                                          {0, 0, 0, 0}, tlvs);
    }
    static Bytes with_body_appended(Bytes b, bool ipv4, const Bytes &tail) {
        const size_t hl = ipv4 ? tav::kIpv4HeaderLen : tav::kL2HeaderLen;
        b.insert(b.end(), tail.begin(), tail.end());
        tav::put_be16(b.data() + hl - 2, uint16_t(b.size() - hl));
        return b;
    }
    // Texts that would matter if they reached a shell or a format.
    std::string filler(size_t n) {
        static const char *const kBits[] = {"$(reboot)", "`reboot`", "'", "\"", "%n%s%x", ";reboot;", "\\", "A"};
        std::string s;
        while (s.size() < n) s += kBits[pick(0, std::size(kBits) - 1)];
        s.resize(n);
        return s;
    }

    std::mt19937 rng_;
    std::vector<uint16_t> text_tags_;
    size_t next_op_ = 0, next_text_ = 0;
};

}  // namespace e2e
