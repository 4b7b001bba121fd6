// The daemon's size limits at the cipher binding, with libraries that announce
// sizes beyond them: 65508 ciphertext bytes for every encoding, 1025
// plaintext bytes for every decoding.
#include <sstream>

#include "tests/e2e/e2e.h"

namespace e2e {
namespace {

E2E_SUITE(CipherEncodeTooLong, "cenc", 1, "--cipher " + quote(cipher_path("TAV_Auth_enc65508.so")));

TEST_F(CipherEncodeTooLong, NoHelloNoByeNoReplyOnlyTheMessage) {
    const std::string line = "tav_encode_buf, message too long\n";
    // The hello at start-up already failed.
    ASSERT_TRUE(until([&] { return !slurp(lab().run_file(1, "tavc.out")).empty(); }, 5s));
    EXPECT_EQ(slurp(lab().run_file(1, "tavc.out")), line);

    FrameTap tap(lab().netns_mgr());
    ASSERT_TRUE(tap.ok());
    Client raw = lab().raw(), udp = lab().udp();
    for (auto [mgr, op] : {std::pair{&raw, tav::kOpDiscovery},
                           {&udp, tav::kOpDiscovery},
                           {&raw, tav::kOpSupportedFunctions},
                           {&udp, tav::kOpUserVerification}}) {
        SCOPED_TRACE(std::string(mgr->ipv4() ? "udp " : "raw ") + tav::client::format_op_code(op));
        Output out(lab(), 1);
        auto replies = mgr->request(op, {}, 1s);
        ASSERT_TRUE(replies && replies->empty());
        // The UDP sender adds its own word.
        const std::string want = mgr->ipv4() ? line + "tav_encode_buf failed\n" : line;
        EXPECT_TRUE(until([&] { return out.fresh() == want; }, 5s)) << out.fresh();
    }
    // A restart: the old daemon's bye and the new one's hello fail alike.
    Output out(lab(), 1);
    ASSERT_EQ(lab().on_ap(1, "reboot").status, 0);
    EXPECT_TRUE(until([&] { return out.fresh() == line + line; }, 20s)) << out.fresh();
    EXPECT_TRUE(until([&] { return lab().serving(1); }, 10s));
    EXPECT_EQ(out.fresh(), line + line);
    size_t from_ap = 0;
    for (const auto &f : tap.all(300ms)) from_ap += f.src == ap_mac(1);
    EXPECT_EQ(from_ap, 0u) << "a frame left the access point";
    EXPECT_TRUE(udp.receive_all(0ms).empty()) << "a datagram left the access point";
}

E2E_SUITE(CipherDecodeTooLong, "cdec", 1, "--cipher " + quote(cipher_path("TAV_Auth_dec1025.so")));

// Bytes waiting in the daemon's sockets (UDP port 0xF600, raw 0x2386): zero
// once it has read everything sent to it.
long queued(const Lab &lab) {
    std::istringstream in(lab.on_ap(1, "cat /proc/net/udp /proc/net/packet").out);
    long total = 0;
    for (std::string line; std::getline(in, line);) {
        std::istringstream f(line);
        std::vector<std::string> col{std::istream_iterator<std::string>(f), {}};
        if (col.size() > 4 && col[1].ends_with(":F600"))
            total += std::stol(col[4].substr(col[4].find(':') + 1), nullptr, 16);
        else if (col.size() > 6 && col[3] == "2386")
            total += std::stol(col[6]);
    }
    return total;
}

TEST_F(CipherDecodeTooLong, RequestsAreReadAndDroppedWithoutAWord) {
    Client raw = lab().raw(), udp = lab().udp();
    for (Client *mgr : {&raw, &udp}) {
        SCOPED_TRACE(mgr->ipv4() ? "udp" : "raw");
        Output out(lab(), 1);
        for (uint16_t op : {tav::kOpDiscovery, tav::kOpSupportedFunctions})
            ASSERT_TRUE(mgr->send_request(op, {}));
        EXPECT_TRUE(mgr->receive_all(1500ms).empty());
        EXPECT_EQ(queued(lab()), 0) << "the daemon did not read the requests";
        EXPECT_EQ(out.fresh(), "");
        EXPECT_TRUE(lab().daemon_alive(1));
    }
}

}  // namespace
}  // namespace e2e
