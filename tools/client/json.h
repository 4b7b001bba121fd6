// SPDX-License-Identifier: ISC
// A small streaming JSON writer (two-space indentation) for --json output.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tav::client {

std::string json_quote(std::string_view s);

class JsonWriter {
  public:
    JsonWriter &begin_object();
    JsonWriter &end_object();
    JsonWriter &begin_array();
    JsonWriter &end_array();
    JsonWriter &key(std::string_view k);
    JsonWriter &value(std::string_view s);
    JsonWriter &value(const char *s) { return value(std::string_view(s)); }
    JsonWriter &value(uint64_t n);
    JsonWriter &value(int64_t n);
    JsonWriter &value(int n) { return value(int64_t(n)); }
    JsonWriter &value(unsigned n) { return value(uint64_t(n)); }
    JsonWriter &value(bool b);
    JsonWriter &null();
    // Already-encoded JSON.
    JsonWriter &raw(std::string_view json);

    const std::string &str() const { return out_; }

  private:
    void before_value();
    void close(char c);
    void newline();
    std::string out_;
    std::vector<int> counts_;  // items written at each open level
    bool after_key_ = false;
};

}  // namespace tav::client
