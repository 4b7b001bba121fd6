// SPDX-License-Identifier: ISC
// The lab's WAN service: an IPv4 change over the protocol moves the access
// point's interface, a boot applies the committed settings, addresses outside
// the documentation ranges are refused; discovery shows what the database
// holds on both paths. The address of the plan is restored at the end.
#include "tests/e2e/e2e.h"

namespace e2e {
namespace {

using namespace tav::client;

E2E_SUITE(Wan, "wan", 1, "");

// What br0 runs with, as ip shows it ("A.B.C.D/P").
std::string interface_address(const Lab &lab) {
    return lab.on_ap(1, "ip -4 -o addr show dev br0 | awk '{print $4}'").out;
}

TEST_F(Wan, InterfaceFollowsTheDatabaseAndRefusesOtherRanges) {
    Client raw = lab().raw();
    Tail wan(lab(), 1, "wan.log");
    // Sets the addressing over the protocol; the WAN service's verdict.
    auto set = [&](bool dhcp, Bytes ip, Bytes mask, Bytes gateway) {
        wan.mark();
        Message m = ask_body(raw, tav::kOpSetIpv4, tlv(15, ip) + tlv(17, mask) + tlv(18, gateway) +
                                                        tlv(20, {192, 0, 2, 53}) + u8(25, dhcp) + creds());
        EXPECT_EQ(m.result(), 0);
        until([&] { return !wan().empty(); }, kLong);
        return wan();
    };
    // Discovery on both paths (UDP to the address the database now holds).
    auto discovered = [&](const std::string &udp_to) {
        auto r = raw.request_one(tav::kOpDiscovery, {}, kLong);
        auto u = lab().udp(udp_to).request_one(tav::kOpDiscovery, {}, kLong);
        if (!r || !u) return std::string("no reply");
        return format_ipv4(*r->ipv4(tav::kTagIpAddress)) + " " + format_ipv4(*u->ipv4(tav::kTagIpAddress)) + " " +
               format_ipv4(u->src_ip) + " " + lab().db_get(1, "/runtime/wan/inf:1/ip");
    };
    Finally restore{[&] { lab().on_ap(1, "rgdb -s /wan/rg/inf:1/mode 1; rgdb -s /wan/rg/inf:1/static/ip 192.0.2.11;"
                                         "rgdb -s /wan/rg/inf:1/static/netmask 255.255.255.0; submit COMMIT; submit WAN"); }};

    EXPECT_EQ(set(false, {198, 51, 100, 21}, {255, 255, 255, 0}, {198, 51, 100, 1}),
              "submit WAN: static 198.51.100.21/24 gateway 198.51.100.1 (was 192.0.2.11/24)\n");
    EXPECT_EQ(interface_address(lab()), "198.51.100.21/24\n");
    EXPECT_EQ(discovered("198.51.100.21"), "198.51.100.21 198.51.100.21 198.51.100.21 198.51.100.21");

    // Committed without the service: the next boot applies it.
    const std::string boots = boot_count(lab());
    ASSERT_EQ(lab().on_ap(1, "rgdb -s /wan/rg/inf:1/static/ip 203.0.113.21 && rgdb -s /wan/rg/inf:1/static/netmask "
                             "255.255.255.128 && submit COMMIT && reboot").status, 0);
    ASSERT_TRUE(rebooted(lab(), boots));
    EXPECT_EQ(interface_address(lab()), "203.0.113.21/25\n");
    EXPECT_EQ(lab().db_get(1, "/runtime/wan/inf:1/netmask"), "255.255.255.128");
    EXPECT_EQ(discovered("203.0.113.21"), "203.0.113.21 203.0.113.21 203.0.113.21 203.0.113.21");

    // Outside the documentation ranges, or a mask reaching past one: nothing changes.
    EXPECT_EQ(set(false, {240, 0, 0, 7}, {255, 255, 255, 0}, {0, 0, 0, 0}),
              "submit WAN: refused static 240.0.0.7/255.255.255.0: '240.0.0.7' is not an address of the "
              "documentation ranges\n");
    EXPECT_EQ(set(false, {192, 0, 2, 77}, {255, 255, 0, 0}, {192, 0, 2, 1}),
              "submit WAN: refused static 192.0.2.77/255.255.0.0: netmask 255.255.0.0 (/16) is not within one "
              "documentation range\n");
    EXPECT_EQ(interface_address(lab()), "203.0.113.21/25\n");
    EXPECT_EQ(discovered("203.0.113.21"), "203.0.113.21 203.0.113.21 203.0.113.21 203.0.113.21");

    // DHCP: the lab leases the address of the plan; then static on it again.
    EXPECT_EQ(set(true, {0, 0, 0, 0}, {0, 0, 0, 0}, {0, 0, 0, 0}),
              "submit WAN: dhcp 192.0.2.11/24 gateway 192.0.2.1 (was 203.0.113.21/25)\n");
    EXPECT_EQ(discovered("192.0.2.11"), "192.0.2.11 192.0.2.11 192.0.2.11 192.0.2.11");
    EXPECT_EQ(set(false, {192, 0, 2, 11}, {255, 255, 255, 0}, {192, 0, 2, 1}),
              "submit WAN: static 192.0.2.11/24 gateway 192.0.2.1\n");
    EXPECT_EQ(interface_address(lab()), "192.0.2.11/24\n");
}

}  // namespace
}  // namespace e2e
