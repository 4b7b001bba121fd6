// A stand-in device on loopback UDP for the client's tests: deciphers each
// request with the test cipher and answers what the handler returns.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "tools/client/client.h"

namespace tav::test {

using client::Message;
using client::TlvList;

// Plaintext of an IPv4-form reply to `req`.
std::vector<uint8_t> make_reply(const Message &req, uint16_t result, const TlvList &tlvs,
                                int sequence_delta = 0);

class FakeDevice {
  public:
    // Returns plaintexts to send back (none: stay silent).
    using Handler = std::function<std::vector<std::vector<uint8_t>>(const Message &)>;

    FakeDevice(const std::string &cipher_path, Handler handler);
    ~FakeDevice();
    uint16_t port() const { return port_; }
    std::vector<Message> requests();

  private:
    void run();
    client::Cipher cipher_;
    Handler handler_;
    int fd_ = -1;
    uint16_t port_ = 0;
    std::atomic<bool> stop_{false};
    std::mutex mu_;
    std::vector<Message> seen_;
    std::thread thread_;
};

}  // namespace tav::test
