#include "engine_fixture.h"

#include <cstring>

namespace {

int enc_len(uint16_t n) { return n; }
int enc(int, tav_buf *in, tav_buf *out, uint16_t *selector) {
    std::memcpy(out->data, in->data, in->length);
    out->length = in->length;
    *selector = kSelector;
    return 0;
}
int dec_len(const uint8_t *, uint16_t n) { return n; }
int dec(uint16_t, tav_buf *in, tav_buf *out) {
    std::memcpy(out->data, in->data, in->length);
    out->length = in->length;
    return 0;
}

}  // namespace

Bytes tlv(uint16_t tag, const Bytes &value, std::optional<uint16_t> declared) {
    Bytes b(4);
    tav::put_be16(b.data(), tag);
    tav::put_be16(b.data() + 2, declared.value_or(uint16_t(value.size())));
    b.insert(b.end(), value.begin(), value.end());
    return b;
}

Bytes tlv_text(uint16_t tag, const std::string &text) {
    Bytes v(text.begin(), text.end());
    v.push_back(0);
    return tlv(tag, v);
}

Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes &p : parts) all.insert(all.end(), p.begin(), p.end());
    return all;
}

std::vector<Record> records(std::span<const uint8_t> body) {
    std::vector<Record> r;
    tav::ReplyReader rd(body);
    while (auto t = rd.next()) r.push_back({t->tag, Bytes(t->value.begin(), t->value.end())});
    EXPECT_FALSE(rd.truncated());
    return r;
}

void Engine::SetUp() {
    lrgbin_store::clear();
    tavc_record::clear();
    ASSERT_EQ(init_buff(), 0);
    init_time_zone_table();
    // Descriptors that are never open: only the recorder sees the sends.
    tav_l2_fd = 1000;
    tav_l3_fd = 1001;
    tav_encode = enc;
    tav_decode = dec;
    tav_get_encrypted_msg_len = enc_len;
    tav_get_decrypted_msg_len = dec_len;
    lrgbin_store::put("/runtime/wan/inf:1/mac", "02:7a:76:00:00:01");
    lrgbin_store::put("/runtime/wan/inf:1/ip", "192.0.2.11");
    lrgbin_store::put("/sys/user:1/name", "admin");
    lrgbin_store::put("/sys/user:1/password", "secret");
    init_device_status();
    testing::internal::CaptureStdout();
}

void Engine::TearDown() {
    fflush(stdout);
    testing::internal::GetCapturedStdout();
    free_buff();
}

std::string Engine::out() {
    fflush(stdout);
    std::string s = testing::internal::GetCapturedStdout();
    testing::internal::CaptureStdout();
    return s;
}

Bytes Engine::request(bool ipv4, uint16_t op, const Bytes &body, tav::Mac target,
                      std::array<uint8_t, 4> ip, uint16_t sequence) {
    tav::Header h;
    h.ipv4 = ipv4;
    h.msg_type = ipv4 ? tav::kMsgIpv4Request : tav::kMsgL2Request;
    h.sequence = sequence;
    h.op_code = op;
    h.target_mac = target;
    h.target_ip = ip;
    h.body_length = uint16_t(body.size());
    Bytes p(h.size());
    tav::encode_header(h, p.data());
    p.insert(p.end(), body.begin(), body.end());
    return p;
}

void Engine::deliver(const Bytes &plain, tav::Mac sender) {
    std::memset(tav_tmp_server, 0, sizeof *tav_tmp_server);
    std::memcpy(tav_tmp_server->mac, sender.data(), 6);
    tav_tmp_server->addr.sin_family = AF_INET;
    tav_tmp_server->addr.sin_port = htons(40000);
    std::memcpy(&tav_tmp_server->addr.sin_addr, "\xc6\x33\x64\x05", 4);  // 198.51.100.5
    tav_tmp_server->addr_len = sizeof(sockaddr_in);
    process_message(plain.data(), uint16_t(plain.size()));
}

std::vector<SentMessage> Engine::sent() const {
    std::vector<SentMessage> all;
    for (const auto &f : tavc_record::frames()) {
        SentMessage m{};
        m.l2 = f.fd == tav_l2_fd;
        size_t off = m.l2 ? tav::kEthHeaderLen : 0;
        EXPECT_GE(f.bytes.size(), off + 2);
        EXPECT_EQ(tav::get_be16(f.bytes.data() + off), kSelector);
        m.eth.assign(f.bytes.begin(), f.bytes.begin() + long(off));
        std::span<const uint8_t> plain(f.bytes.data() + off + 2, f.bytes.size() - off - 2);
        auto h = tav::decode_header(plain);
        EXPECT_TRUE(h.has_value());
        if (!h) continue;
        m.header = *h;
        m.body.assign(plain.begin() + long(h->size()), plain.end());
        EXPECT_EQ(m.body.size(), h->body_length);
        all.push_back(m);
    }
    return all;
}

std::pair<int, Bytes> Engine::call(tav_handler h, const Bytes &body) {
    static uint8_t reply[kReplyBodySize];
    std::memset(reply, 0, sizeof reply);
    int rc = h(body.data() ? body.data() : reply, uint16_t(body.size()), reply);
    uint16_t n;
    std::memcpy(&n, reply, 2);
    return {rc, Bytes(reply + 2, reply + 2 + n)};
}
