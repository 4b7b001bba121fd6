// SPDX-License-Identifier: ISC
// What every unit test of the daemon's handlers starts from: tavc_core linked against the
// in-process store (lrgbin_store) and the launch/frame recorder (tavc_record). Each test gets the
// engine's buffers, an empty store with an administrator "admin"/"secret", an empty recorder, a
// fresh time-zone table and captured standard output.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "sim/store/rgdb_store.h"
#include "tests/support/tlv_bytes.h"
#include "proto/wire.h"
#include "tavc/handlers.h"
#include "sim/record/record.h"
#include "tavc/dispatch.h"
#include "tavc/lifecycle.h"
#include "tavc/registry.h"
#include "tavc/time_zone.h"

using Bytes = std::vector<uint8_t>;
using Strings = std::vector<std::string>;
using Handler = int (*)(const uint8_t *, uint16_t, uint8_t *);

namespace fixture {

using namespace testbytes;

// Credentials of the fixture's administrator (tags 55 and 56).
inline Bytes admin() { return text(55, "admin") + text(56, "secret"); }

// A stored value, "<unset>" when the key is absent.
inline std::string stored(const std::string &key) { return lrgbin_store::find(key).value_or("<unset>"); }
inline void put(std::initializer_list<std::pair<std::string, std::string>> values) {
    for (const auto &[k, v] : values) lrgbin_store::put(k, v);
}

// A reply body's records in order (its bytes must parse whole).
using Tlvs = std::vector<std::pair<uint16_t, Bytes>>;
inline Tlvs tlvs_of(const Bytes &b) {
    Tlvs out;
    tav::ReplyReader rd(b);
    while (auto t = rd.next()) out.emplace_back(t->tag, Bytes(t->value.begin(), t->value.end()));
    EXPECT_FALSE(rd.truncated());
    return out;
}

// A manager's record: MAC 02:00:00:00:hi:lo.
inline tav_server sender(uint16_t last) {
    tav_server s{};
    s.mac[0] = 0x02, s.mac[4] = uint8_t(last >> 8), s.mac[5] = uint8_t(last);
    return s;
}

}  // namespace fixture

class Engine : public ::testing::Test {
  protected:
    void SetUp() override {
        lrgbin_store::clear();
        tavc_record::clear();
        ASSERT_EQ(init_buff(), 0);
        init_time_zone_table();
        fixture::put({{"/sys/user:1/name", "admin"}, {"/sys/user:1/password", "secret"}});
        testing::internal::CaptureStdout();
    }
    void TearDown() override {
        fflush(stdout);
        std::string rest = testing::internal::GetCapturedStdout();
        // Failure messages went into the capture too: show them.
        if (HasFailure()) std::fputs(rest.c_str(), stderr);
        free_buff();
    }
    // Standard output since SetUp or the last out().
    static std::string out() {
        fflush(stdout);
        std::string s = testing::internal::GetCapturedStdout();
        testing::internal::CaptureStdout();
        return s;
    }
    // The commands launched so far, in order (Exec: path and arguments).
    static Strings commands() {
        Strings v;
        for (const auto &l : tavc_record::launches()) v.push_back(l.command);
        return v;
    }

    // Calls a handler as the dispatcher would for `op` from `from`; the reply body's TLVs are in
    // reply_tlvs() afterwards.
    int call(Handler handler, uint16_t op, const Bytes &body, tav_server from = {}) {
        from_ = from;
        from_.functions[0].op_code = op;
        *tav_tmp_server = from_;  // the engine's own record: free_buff releases it
        std::memset(reply_, 0, sizeof reply_);
        return handler(body.data(), uint16_t(body.size()), reply_);
    }
    // The reply body after call(): its TLV bytes (length from the first two bytes, host order).
    Bytes reply_tlvs() const {
        uint16_t n;
        std::memcpy(&n, reply_, sizeof n);
        return Bytes(reply_ + 2, reply_ + 2 + n);
    }

    tav_server from_{};
    uint8_t reply_[kReplyBodySize + 2] = {};
};
