// SPDX-License-Identifier: ISC
#include "tools/client/json.h"

#include <cstdio>

namespace tav::client {

std::string json_quote(std::string_view s) {
    std::string o = "\"";
    for (unsigned char c : s) {
        switch (c) {
            case '"': o += "\\\""; break;
            case '\\': o += "\\\\"; break;
            case '\n': o += "\\n"; break;
            case '\r': o += "\\r"; break;
            case '\t': o += "\\t"; break;
            default:
                if (c < 0x20) {
                    char b[7];
                    std::snprintf(b, sizeof b, "\\u%04x", c);
                    o += b;
                } else {
                    o.push_back(char(c));
                }
        }
    }
    o += "\"";
    return o;
}

void JsonWriter::newline() {
    out_.push_back('\n');
    out_.append(counts_.size() * 2, ' ');
}

void JsonWriter::before_value() {
    if (after_key_) {
        after_key_ = false;
        return;
    }
    if (!counts_.empty()) {
        if (counts_.back()++ > 0) out_.push_back(',');
        newline();
    }
}

void JsonWriter::close(char c) {
    bool had_items = !counts_.empty() && counts_.back() > 0;
    if (!counts_.empty()) counts_.pop_back();
    if (had_items) newline();
    out_.push_back(c);
    if (counts_.empty()) out_.push_back('\n');
}

JsonWriter &JsonWriter::begin_object() {
    before_value();
    out_.push_back('{');
    counts_.push_back(0);
    return *this;
}
JsonWriter &JsonWriter::end_object() {
    close('}');
    return *this;
}
JsonWriter &JsonWriter::begin_array() {
    before_value();
    out_.push_back('[');
    counts_.push_back(0);
    return *this;
}
JsonWriter &JsonWriter::end_array() {
    close(']');
    return *this;
}
JsonWriter &JsonWriter::key(std::string_view k) {
    before_value();
    out_ += json_quote(k);
    out_ += ": ";
    after_key_ = true;
    return *this;
}
JsonWriter &JsonWriter::value(std::string_view s) {
    before_value();
    out_ += json_quote(s);
    return *this;
}
JsonWriter &JsonWriter::value(uint64_t n) {
    before_value();
    out_ += std::to_string(n);
    return *this;
}
JsonWriter &JsonWriter::value(int64_t n) {
    before_value();
    out_ += std::to_string(n);
    return *this;
}
JsonWriter &JsonWriter::value(bool b) {
    before_value();
    out_ += b ? "true" : "false";
    return *this;
}
JsonWriter &JsonWriter::null() {
    before_value();
    out_ += "null";
    return *this;
}
JsonWriter &JsonWriter::raw(std::string_view json) {
    before_value();
    out_ += json;
    return *this;
}

}  // namespace tav::client
