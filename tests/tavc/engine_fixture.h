// Shared set-up for the engine tests: the engine's buffers, the in-process
// store holding an access point's identity, and standard output captured.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "lrgbin/rgdb_store.h"
#include "proto/wire.h"
#include "tavc/record/record.h"
#include "tavc/tavc.h"

using Bytes = std::vector<uint8_t>;

class Engine : public ::testing::Test {
   protected:
    void SetUp() override {
        lrgbin_store::clear();
        tavc_record::clear();
        ASSERT_EQ(init_buff(), 0);
        init_time_zone_table();
        tav_l2_fd = 1000;  // never open: only the recorder sees the sends
        tav_l3_fd = 1001;
        lrgbin_store::put("/runtime/wan/inf:1/mac", "02:7a:76:00:00:01");
        lrgbin_store::put("/sys/user:1/name", "admin");
        lrgbin_store::put("/sys/user:1/password", "secret");
        init_device_status();
        testing::internal::CaptureStdout();
    }
    void TearDown() override {
        fflush(stdout);
        testing::internal::GetCapturedStdout();
        free_buff();
    }
    // Standard output since SetUp or the last out().
    static std::string out() {
        fflush(stdout);
        std::string s = testing::internal::GetCapturedStdout();
        testing::internal::CaptureStdout();
        return s;
    }
};
