// SPDX-License-Identifier: ISC
// The one writer of command results: a table or block for people, one JSON
// array of per-access-point objects, or "MAC key=value" lines for shells.
#include <algorithm>
#include <cstdio>

#include "tools/client/json.h"
#include "tools/tavctl/tavctl.h"

namespace tavctl {

Node &Node::set(std::string key, Node v) {
    for (auto &[k, old] : fields_)
        if (k == key) return old = std::move(v);
    fields_.emplace_back(std::move(key), std::move(v));
    return fields_.back().second;
}

Node &Node::push(Node v) {
    items_.push_back(std::move(v));
    return items_.back();
}

const Node *Node::get(std::string_view key) const {
    for (const auto &[k, v] : fields_)
        if (k == key) return &v;
    return nullptr;
}

std::string Node::display() const {
    if (!shown_.empty()) return shown_;
    switch (type_) {
        case Type::Null: return "-";
        case Type::Bool: return int_ ? "yes" : "no";
        case Type::Int: return std::to_string(int_);
        case Type::Text: return text_;
        default: return "";
    }
}

Node on_off(bool b) { return Node(b).shown(b ? "on" : "off"); }

std::string Ap::label() const {
    if (mac) return format_mac(*mac);
    if (ip) return format_ipv4(*ip);
    return "?";
}

namespace {

void write_json(JsonWriter &j, const Node &n) {
    switch (n.type()) {
        case Node::Type::Null: j.null(); break;
        case Node::Type::Bool: j.value(n.number() != 0); break;
        case Node::Type::Int: j.value(int64_t(n.number())); break;
        case Node::Type::Text: j.value(n.text()); break;
        case Node::Type::Object:
            j.begin_object();
            for (const auto &[k, v] : n.fields()) write_json(j.key(k), v);
            j.end_object();
            break;
        case Node::Type::List:
            j.begin_array();
            for (const auto &v : n.items()) write_json(j, v);
            j.end_array();
            break;
    }
}

// The object scripts get: mac first, the command's fields, the outcome.
Node full_object(const Row &r) {
    Node o = Node::object();
    o.set("mac", r.ap.mac ? Node(format_mac(*r.ap.mac)) : Node());
    for (const auto &[k, v] : r.data.fields()) o.set(k, v);
    o.set("result", unsigned(r.result));
    if (!r.error.empty()) o.set("error", r.error);
    return o;
}

std::string raw_text(const Node &n) {
    switch (n.type()) {
        case Node::Type::Bool: return n.number() ? "true" : "false";
        case Node::Type::Int: return std::to_string(n.number());
        case Node::Type::Text: return n.text();
        default: return "";
    }
}

void key_values(const std::string &mac, const std::string &path, const Node &n) {
    if (n.type() == Node::Type::Object) {
        for (const auto &[k, v] : n.fields()) key_values(mac, path.empty() ? k : path + "." + k, v);
    } else if (n.type() == Node::Type::List) {
        for (size_t i = 0; i < n.items().size(); ++i) key_values(mac, path + "." + std::to_string(i), n.items()[i]);
    } else {
        std::printf("%s %s=%s\n", mac.c_str(), path.c_str(), shell_quote(raw_text(n)).c_str());
    }
}

std::string label_of(const std::string &key) {
    std::string s = key;
    std::replace(s.begin(), s.end(), '_', ' ');
    return s;
}
std::string heading_of(const std::string &key) {
    std::string s = label_of(key);
    for (char &ch : s) ch = char(std::toupper(uint8_t(ch)));
    return s;
}

// Scalars of an object, nested objects flattened ("wlan_2g.sent").
void scalars(const Node &n, const std::string &prefix, std::vector<std::pair<std::string, const Node *>> &out) {
    for (const auto &[k, v] : n.fields()) {
        if (v.hidden_in_text() || k == "note") continue;
        if (v.type() == Node::Type::Object)
            scalars(v, prefix + k + " ", out);
        else if (v.is_scalar())
            out.emplace_back(prefix + k, &v);
    }
}

using Table = std::vector<std::vector<std::string>>;

void print_table(const Table &rows) {
    std::vector<size_t> width(rows[0].size(), 0);
    for (const auto &r : rows)
        for (size_t c = 0; c < r.size(); ++c) width[c] = std::max(width[c], r[c].size());
    for (const auto &r : rows) {
        std::string line;
        for (size_t c = 0; c < r.size(); ++c) {
            line += r[c];
            if (c + 1 < r.size()) line += std::string(width[c] - r[c].size() + 2, ' ');
        }
        std::printf("%s\n", line.c_str());
    }
}

void print_text(const std::vector<const Row *> &rows, bool several) {
    if (rows.empty()) return;
    const Node &first = rows[0]->data;
    bool printed = false;
    auto gap = [&] {
        if (printed) std::printf("\n");
        printed = true;
    };
    // Scalars: a block for one access point, a table with an AP column for several.
    std::vector<std::pair<std::string, const Node *>> keys;
    scalars(first, "", keys);
    bool multiline = false;
    for (const Row *r : rows) {
        std::vector<std::pair<std::string, const Node *>> ks;
        scalars(r->data, "", ks);
        for (auto &[k, v] : ks) multiline |= v->display().find('\n') != std::string::npos;
    }
    if (!keys.empty()) {
        gap();
        if (!several || multiline) {
            for (const Row *r : rows) {
                if (several) std::printf("%s%s:\n", r == rows[0] ? "" : "\n", r->ap.label().c_str());
                std::vector<std::pair<std::string, const Node *>> ks;
                scalars(r->data, "", ks);
                size_t w = 0;
                for (auto &[k, v] : ks) w = std::max(w, k.size());
                for (auto &[k, v] : ks) {
                    std::string label = label_of(k);
                    if (ks.size() == 1 && v->display().find('\n') != std::string::npos)
                        std::printf("%s\n", v->display().c_str());
                    else
                        std::printf("%s%s:%s %s\n", several ? "  " : "", label.c_str(),
                                    std::string(w - k.size(), ' ').c_str(), v->display().c_str());
                }
            }
        } else {
            Table t{{"AP"}};
            for (auto &[k, v] : keys) t[0].push_back(heading_of(k));
            for (const Row *r : rows) {
                std::vector<std::pair<std::string, const Node *>> ks;
                scalars(r->data, "", ks);
                std::vector<std::string> line{r->ap.label()};
                for (auto &[k, v0] : keys) {
                    auto it = std::find_if(ks.begin(), ks.end(), [&](auto &p) { return p.first == k; });
                    line.push_back(it == ks.end() ? "-" : it->second->display());
                }
                t.push_back(line);
            }
            print_table(t);
        }
    }
    // Lists of records: one table, with an AP column for several.
    for (const auto &[key, v0] : first.fields()) {
        if (v0.type() != Node::Type::List || v0.hidden_in_text()) continue;
        Table t;
        for (const Row *r : rows) {
            const Node *list = r->data.get(key);
            if (!list) continue;
            for (const Node &item : list->items()) {
                std::vector<std::pair<std::string, const Node *>> ks;
                if (item.type() == Node::Type::Object)
                    scalars(item, "", ks);
                else
                    ks.emplace_back(key, &item);
                if (t.empty()) {
                    t.emplace_back();
                    if (several) t[0].push_back("AP");
                    for (auto &[k, v] : ks) t[0].push_back(heading_of(k));
                }
                std::vector<std::string> line;
                if (several) line.push_back(r->ap.label());
                for (auto &[k, v] : ks) line.push_back(v->display());
                t.push_back(line);
            }
        }
        const bool noted = std::any_of(rows.begin(), rows.end(), [](const Row *r) { return r->data.get("note"); });
        if (t.empty() && noted) continue;  // the note says it ("nothing changed")
        gap();
        if (t.empty())
            std::printf("no %s\n", label_of(key).c_str());
        else
            print_table(t);
    }
    for (const Row *r : rows)
        if (const Node *note = r->data.get("note"))
            std::printf("%s%s\n", several ? (r->ap.label() + ": ").c_str() : "", note->display().c_str());
}

}  // namespace

std::string shell_quote(const std::string &s) {
    bool plain = !s.empty() && std::all_of(s.begin(), s.end(), [](char ch) {
        return std::isalnum(uint8_t(ch)) || std::string_view("_./:@%+,-").find(ch) != std::string_view::npos;
    });
    if (plain) return s;
    std::string q = "'";
    for (char ch : s) q += ch == '\'' ? std::string("'\\''") : std::string(1, ch);
    return q + "'";
}

int print_report(const Ctx &c, const std::vector<Row> &rows, bool several) {
    int worst = kExitOk;
    std::vector<const Row *> good;
    for (const Row &r : rows) {
        if (r.error.empty()) {
            good.push_back(&r);
            continue;
        }
        worst = std::max(worst, r.exit);
        if (!c.capture) std::fprintf(stderr, "tavctl: %s: %s: %s\n", c.name().c_str(), r.ap.label().c_str(), r.error.c_str());
    }
    switch (c.capture ? Format::Json : c.g.format) {
        case Format::Json: {
            JsonWriter j;
            j.begin_array();
            for (const Row &r : rows) write_json(j, full_object(r));
            j.end_array();
            if (c.capture)
                *c.capture = j.str();
            else
                std::fputs(j.str().c_str(), stdout);
            break;
        }
        case Format::KeyValue:
            for (const Row &r : rows) key_values(r.ap.label(), "", full_object(r));
            break;
        case Format::Table: print_text(good, several); break;
    }
    std::fflush(stdout);
    return worst;
}

}  // namespace tavctl
