// SPDX-License-Identifier: ISC
// tavctl web: a local, read-only page of the fleet, and /metrics for
// Prometheus. A poller discovers every --interval and reads each access
// point's status and clients; a listener applies hellos, reports and byes as
// they come; the HTTP server (Debian's cpp-httplib) answers from what those
// two collected, and runs a read command for one access point on request.
#include <httplib.h>
#include <pthread.h>

#include <algorithm>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <map>
#include <mutex>
#include <set>
#include <thread>

#include "tools/client/json.h"
#include "tools/tavctl/tavctl.h"

namespace tavctl {

namespace {

using namespace std::chrono_literals;

double seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

constexpr const char *kSides[] = {"wlan_2g", "wlan_5g", "ethernet"};
constexpr const char *kBands[] = {"2.4GHz", "5GHz"};

struct Status {
    unsigned cpu = 0, memory = 0;  // percent
    uint64_t sent[3]{}, received[3]{};
};

struct ApState {
    std::map<std::string, std::string> id;  // identity fields, merged from replies and reports
    Clock::time_point heard;                // last message of any kind
    bool answered = false;                  // answered the last poll's discovery
    // What the last poll collected (empty when it got no answer).
    std::optional<double> reply_seconds;
    std::optional<Status> status;
    std::optional<std::array<unsigned, 2>> clients;  // per band
    std::string get(const char *k) const {
        auto it = id.find(k);
        return it == id.end() ? "" : it->second;
    }
};

// The identity records a discovery reply carries; a report carries some, a
// hello none, so only those present replace what is known.
void merge_identity(ApState &a, const Message &m) {
    auto text = [&](const char *key, uint16_t tag) {
        if (auto v = m.text(tag)) a.id[key] = *v;
    };
    auto ip = [&](const char *key, uint16_t tag) {
        if (auto v = m.ipv4(tag)) a.id[key] = format_ipv4(*v);
    };
    ip("ip", kTagIpAddress);
    text("system_name", kTagSystemName);
    text("host_name", kTagHostName);
    text("model", kTagModelName);
    text("firmware", kTagFirmwareVersion);
    text("hardware", kTagHardwareVersion);
    text("product_type", kTagProductType);
    text("vendor", kTagVendor);
    ip("netmask", kTagNetmask);
    ip("gateway", kTagGateway);
    ip("primary_dns", kTagPrimaryDns);
    if (auto p = m.u16(kTagWebPort)) a.id["web_port"] = std::to_string(*p);
    if (m.op_code() == kOpDiscovery) {
        a.id["managed"] = under_management(m) ? "yes (" + m.text(kTagNmsServer).value_or("") + ")" : "no";
        if (auto wan = m.u8(kTagWanMode)) a.id["addressing"] = *wan == 1 ? "dhcp" : *wan == 0 ? "static" : "other";
    }
}

struct Web {
    Web(double interval, double report_interval) : interval(interval), report_interval(report_interval) {}
    double interval, report_interval;
    std::mutex mu;  // guards everything below
    std::map<std::string, ApState> aps;  // by MAC
    // Byes heard while a poll runs: its discovery answers do not bring those back.
    std::map<std::string, Clock::time_point> byes;
    std::optional<Clock::time_point> last_poll;
    double poll_seconds = 0;
    bool wake = false, stop = false;
    std::condition_variable cv;

    bool stale(const ApState &a, Clock::time_point now) const {
        return now - a.heard > std::chrono::milliseconds(long(3 * report_interval * 1000 + 5000));
    }
};

std::string mac_of(const Message &m, bool ipv4) {
    auto mac = m.mac(kTagMac);
    if (!mac && !ipv4) mac = m.src_mac;
    return mac ? format_mac(*mac) : "";
}

// One poll: a discovery (each answer timed), then status and client list of
// every access point that answered, in parallel.
void poll(Web &w, Fleet &f) {
    const auto t0 = Clock::now();
    auto seq = f.client().send_request(kOpDiscovery, {});
    if (!seq) {
        std::fprintf(stderr, "tavctl: web: discovery: %s\n", seq.error().c_str());
        return;
    }
    struct Found {
        Message m;
        Clock::time_point at;
    };
    std::map<std::string, Found> found;
    while (auto m = f.client().receive(t0 + f.window())) {
        if (!f.client().is_reply(*m, *seq, kOpDiscovery)) continue;
        std::string mac = mac_of(*m, f.ipv4());
        if (!mac.empty() && !found.count(mac)) found.emplace(mac, Found{std::move(*m), Clock::now()});
    }
    std::vector<Ap> aps;
    for (auto &[mac, x] : found) {
        Ap &ap = aps.emplace_back();
        ap.mac = parse_mac(mac);
        ap.ip = x.m.ipv4(kTagIpAddress);
    }
    auto status = f.ask(aps, kOpGetDeviceStatus, {}, true);
    auto clients = f.ask(aps, kOpGetClientList, {}, true);

    std::lock_guard lock(w.mu);
    for (auto &[mac, a] : w.aps) a.answered = false, a.reply_seconds.reset(), a.status.reset(), a.clients.reset();
    size_t i = 0;
    for (auto &[mac, x] : found) {
        const size_t k = i++;
        if (auto b = w.byes.find(mac); b != w.byes.end() && b->second > t0) continue;
        ApState &a = w.aps[mac];
        a.answered = true;
        a.heard = std::max(a.heard, x.at);
        a.reply_seconds = seconds(x.at - t0);
        merge_identity(a, x.m);
        if (const auto &m = status[k]; m && m->result() == 0) {
            Status s{m->u8(kTagCpuUtilization).value_or(0), m->u8(kTagMemoryUsage).value_or(0)};
            const std::pair<uint16_t, uint16_t> tags[] = {{kTagWlan2gSend, kTagWlan2gReceived},
                                                          {kTagWlan5gSend, kTagWlan5gReceived},
                                                          {kTagLanSend, kTagLanReceived}};
            for (int j = 0; j < 3; ++j)
                s.sent[j] = m->u64(tags[j].first).value_or(0), s.received[j] = m->u64(tags[j].second).value_or(0);
            a.status = s;
        }
        if (const auto &m = clients[k]; m && m->result() == 0) {
            std::array<unsigned, 2> n{};
            for (const auto &g : groups_of(*m, kTagMac))
                if (uint64_t band = number_in(g, kTagTlvBand); band < 2) ++n[band];
            a.clients = n;
        }
    }
    w.byes.clear();
    w.last_poll = Clock::now();
    w.poll_seconds = seconds(*w.last_poll - t0);
}

void poller(Web &w, Fleet &f) {
    for (;;) {
        try {
            poll(w, f);
        } catch (const Failure &e) {  // a network error: the next poll tries again
            std::fprintf(stderr, "tavctl: web: poll: %s\n", e.message.c_str());
        }
        std::unique_lock lock(w.mu);
        w.cv.wait_for(lock, std::chrono::milliseconds(long(w.interval * 1000)), [&] { return w.stop || w.wake; });
        if (w.stop) return;
        w.wake = false;
    }
}

// Announcements come by raw Ethernet only.
void listener(Web &w, Fleet &f) {
    for (;;) {
        auto m = f.client().receive(Clock::now() + 300ms);
        std::lock_guard lock(w.mu);
        if (w.stop) return;
        if (!m || !m->is_announcement()) continue;
        const std::string mac = format_mac(m->src_mac);
        if (m->op_code() == kOpBye) {
            w.aps.erase(mac);
            w.byes[mac] = Clock::now();
            continue;
        }
        if (!w.aps.count(mac)) w.wake = true, w.cv.notify_all();  // a newcomer: poll now
        ApState &a = w.aps[mac];
        a.heard = Clock::now();
        merge_identity(a, *m);
    }
}

// ---- answers -------------------------------------------------------------------------------

std::string fleet_json(Web &w) {
    std::lock_guard lock(w.mu);
    const auto now = Clock::now();
    JsonWriter j;
    j.begin_object().key("interval").value(int64_t(w.interval)).key("last_poll_seconds_ago");
    if (w.last_poll) j.value(int64_t(seconds(now - *w.last_poll))); else j.null();
    j.key("aps").begin_array();
    for (const auto &[mac, a] : w.aps) {
        j.begin_object().key("mac").value(mac);
        for (const char *k : {"ip", "system_name", "host_name", "model", "firmware"}) j.key(k).value(a.get(k));
        j.key("stale").value(w.stale(a, now)).key("answered").value(a.answered);
        j.key("heard_seconds_ago").value(int64_t(seconds(now - a.heard))).key("clients");
        if (a.clients) j.value((*a.clients)[0] + (*a.clients)[1]); else j.null();
        j.end_object();
    }
    j.end_array().end_object();
    return j.str();
}

std::optional<std::string> identity_json(Web &w, const std::string &mac) {
    std::lock_guard lock(w.mu);
    auto it = w.aps.find(mac);
    if (it == w.aps.end()) return std::nullopt;
    JsonWriter j;
    j.begin_object().key("mac").value(mac);
    for (const char *k : {"system_name", "host_name", "ip", "netmask", "gateway", "primary_dns", "addressing",
                          "model", "hardware", "firmware", "vendor", "product_type", "web_port", "managed"})
        if (it->second.id.count(k)) j.key(k).value(it->second.get(k));
    j.key("stale").value(w.stale(it->second, Clock::now())).end_object();
    return j.str();
}

// The commands the page offers: reads of one access point's state. Not
// verify (it needs the password, which the page never holds), nor hello and
// bye (they tell the access points about this manager rather than read).
const Command *page_command(std::string_view path) {
    for (const Command &cmd : all_commands()) {
        std::string p(cmd.name);
        std::replace(p.begin(), p.end(), ' ', '-');
        if (cmd.kind == Kind::Read && p == path && p != "verify" && p != "hello" && p != "bye") return &cmd;
    }
    return nullptr;
}

std::string commands_json() {
    JsonWriter j;
    j.begin_array();
    for (const Command &cmd : all_commands()) {
        std::string p(cmd.name);
        std::replace(p.begin(), p.end(), ' ', '-');
        if (page_command(p))
            j.begin_object().key("name").value(cmd.name).key("path").value(p).key("summary").value(cmd.summary).end_object();
    }
    j.end_array();
    return j.str();
}

// A read command for one access point, as `tavctl --json --target MAC` prints it.
std::string run_read(const Ctx &base, const Command &cmd, const std::string &mac, int &http) {
    Ctx c = base;
    std::string out;
    c.cmd = &cmd, c.words = {}, c.g.targets = {mac}, c.g.all = false, c.capture = &out;
    try {
        cmd.run(c);
    } catch (const Failure &e) {
        http = e.code == kExitUsage ? 400 : 502;
        JsonWriter j;
        j.begin_object().key("error").value(e.message).end_object();
        return j.str();
    }
    return out;
}

std::string label_value(const std::string &s) {
    std::string o;
    for (char ch : s) {
        if (ch == '\\' || ch == '"') o += '\\';
        if (ch == '\n') o += "\\n";
        else o += ch;
    }
    return o;
}

// Prometheus' text exposition format, from what the last poll collected.
std::string metrics(Web &w) {
    std::lock_guard lock(w.mu);
    const auto now = Clock::now();
    std::string out;
    char b[96];
    auto family = [&](const char *name, const char *type, const char *help, auto each) {
        out += std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
        for (const auto &[mac, a] : w.aps) {
            const std::string labels = "mac=\"" + mac + "\",name=\"" + label_value(a.get("system_name")) + "\"";
            each(a, [&](const std::string &extra, const std::string &value) {
                out += std::string(name) + "{" + labels + extra + "} " + value + "\n";
            });
        }
    };
    auto num = [&](double v) {
        std::snprintf(b, sizeof b, "%.6g", v);
        return std::string(b);
    };
    family("tav_ap_up", "gauge", "Whether the access point answered the last poll's discovery (1) or not (0).",
           [&](const ApState &a, auto emit) { emit("", a.answered ? "1" : "0"); });
    family("tav_ap_stale", "gauge", "Whether the access point missed three periodic reports (1) or not (0).",
           [&](const ApState &a, auto emit) { emit("", w.stale(a, now) ? "1" : "0"); });
    family("tav_ap_since_last_heard_seconds", "gauge",
           "Seconds since the access point's last reply, hello or report.",
           [&](const ApState &a, auto emit) { emit("", num(seconds(now - a.heard))); });
    family("tav_ap_discovery_reply_seconds", "gauge", "Time the access point took to answer the last poll's discovery.",
           [&](const ApState &a, auto emit) {
               if (a.reply_seconds) emit("", num(*a.reply_seconds));
           });
    family("tav_ap_clients", "gauge", "Associated stations per band.", [&](const ApState &a, auto emit) {
        for (int i = 0; a.clients && i < 2; ++i)
            emit(std::string(",band=\"") + kBands[i] + "\"", std::to_string((*a.clients)[i]));
    });
    family("tav_ap_cpu_usage_ratio", "gauge", "CPU utilisation (0 to 1).", [&](const ApState &a, auto emit) {
        if (a.status) emit("", num(a.status->cpu / 100.0));
    });
    family("tav_ap_memory_usage_ratio", "gauge", "Memory in use (0 to 1).", [&](const ApState &a, auto emit) {
        if (a.status) emit("", num(a.status->memory / 100.0));
    });
    for (int sent = 1; sent >= 0; --sent)
        family(sent ? "tav_ap_transmit_bytes_total" : "tav_ap_receive_bytes_total", "counter",
               sent ? "Bytes sent per interface." : "Bytes received per interface.",
               [&](const ApState &a, auto emit) {
                   for (int i = 0; a.status && i < 3; ++i)
                       emit(std::string(",interface=\"") + kSides[i] + "\"",
                            std::to_string(sent ? a.status->sent[i] : a.status->received[i]));
               });
    out += "# HELP tav_fleet_access_points Access points listed (heard and not said bye).\n"
           "# TYPE tav_fleet_access_points gauge\ntav_fleet_access_points " + std::to_string(w.aps.size()) + "\n";
    out += "# HELP tav_fleet_poll_duration_seconds How long the last poll took.\n"
           "# TYPE tav_fleet_poll_duration_seconds gauge\ntav_fleet_poll_duration_seconds " + num(w.poll_seconds) + "\n";
    return out;
}

// ---- the page ------------------------------------------------------------------------------

const char kHtml[] = R"(<!DOCTYPE html>
<html lang="en"><head><meta charset="utf-8"><title>TAV fleet</title>
<meta name="viewport" content="width=device-width, initial-scale=1">
<link rel="stylesheet" href="/app.css"><script src="/app.js" defer></script></head>
<body><header><h1>TAV fleet</h1><span id="summary">loading…</span></header>
<main><section id="list"><table id="aps"><thead><tr><th>State</th><th>System name</th><th>MAC</th>
<th>Address</th><th>Model</th><th>Firmware</th><th>Clients</th><th>Heard</th></tr></thead><tbody></tbody></table></section>
<section id="detail" hidden><h2 id="d-title"></h2>
<h3>Identity</h3><div id="d-identity"></div><h3>Status</h3><div id="d-status"></div>
<h3>SSIDs</h3><div id="d-ssids"></div><h3>Clients</h3><div id="d-clients"></div>
<h3>Read</h3><div id="d-commands"></div><div id="d-output"></div></section></main></body></html>
)";

const char kCss[] = R"(body{margin:0;font:14px system-ui,sans-serif;color:#1d2630;background:#f3f5f7}
header{display:flex;align-items:baseline;gap:1.5em;padding:.7em 1.2em;background:#1f3a4d;color:#fff}
h1{font-size:1.2em;margin:0}#summary{opacity:.85}
main{display:flex;gap:1em;padding:1em;align-items:flex-start}
#list{flex:1 1 auto;overflow:auto}#detail{flex:0 0 32em;overflow-x:auto;background:#fff;border:1px solid #d5dbe1;border-radius:6px;padding:.2em 1em 1em}
#aps td{white-space:nowrap}#detail th{width:1%;white-space:nowrap}#detail table table th,#detail table table td{padding:.15em .4em}
table{border-collapse:collapse;width:100%;background:#fff}
th,td{text-align:left;padding:.35em .6em;border-bottom:1px solid #e3e7eb;vertical-align:top}
th{background:#e8edf1;font-weight:600}
#aps tbody tr{cursor:pointer}#aps tbody tr:hover{background:#eef5fb}#aps tr.sel{background:#dcecf9}
.mono,#aps td:nth-child(3){font-family:ui-monospace,monospace}
.dot{display:inline-block;width:.7em;height:.7em;border-radius:50%;margin-right:.4em;background:#2e9d4f}
tr.stale{color:#8a949e}tr.stale .dot{background:#d08a12}tr.heard .dot{background:#7aa7c7}
h2{font-size:1.1em}h3{font-size:.95em;margin:1em 0 .3em;color:#45525e}
#d-commands button{margin:0 .4em .4em 0;padding:.3em .7em;border:1px solid #9fb3c4;border-radius:4px;background:#f4f8fb;cursor:pointer}
.muted{color:#8a949e}.error{color:#b3261e}
)";

const char kJs[] = R"('use strict';
let selected = null;
const $ = (s) => document.querySelector(s);
function el(tag, cls, ...kids) {
  const e = document.createElement(tag);
  if (cls) e.className = cls;
  for (const k of kids) e.append(k instanceof Node ? k : String(k));
  return e;
}
function ago(s) { return s < 90 ? s + ' s' : s < 5400 ? Math.round(s / 60) + ' min' : Math.round(s / 3600) + ' h'; }
// Any JSON as nested tables; data only ever reaches the page as text.
function render(v) {
  if (Array.isArray(v)) {
    if (!v.length) return el('span', 'muted', 'none');
    if (!v.every((x) => x && typeof x === 'object' && !Array.isArray(x))) return el('span', '', v.join(', '));
    const cols = [...new Set(v.flatMap(Object.keys))];
    const t = el('table', '', el('tr', '', ...cols.map((c) => el('th', '', c.replaceAll('_', ' ')))));
    for (const x of v) t.append(el('tr', '', ...cols.map((c) => el('td', '', render(x[c])))));
    return t;
  }
  if (v && typeof v === 'object') {
    const t = el('table');
    for (const [k, x] of Object.entries(v)) t.append(el('tr', '', el('th', '', k.replaceAll('_', ' ')), el('td', '', render(x))));
    return t;
  }
  return document.createTextNode(v === null || v === undefined ? '—' : String(v));
}
async function refresh() {
  let d;
  try { d = await (await fetch('/api/aps')).json(); } catch (e) { $('#summary').textContent = 'tavctl web is not answering'; return; }
  const body = $('#aps tbody'), seen = new Set();
  d.aps.forEach((ap, i) => {
    seen.add(ap.mac);
    let tr = body.querySelector(`tr[data-mac="${ap.mac}"]`);
    if (!tr) {
      tr = el('tr');
      tr.dataset.mac = ap.mac;
      for (let i = 0; i < 8; i++) tr.append(el('td'));
      tr.onclick = () => show(ap.mac);
    }
    const state = ap.stale ? 'stale' : ap.answered ? 'up' : 'heard';
    tr.className = state + (ap.mac === selected ? ' sel' : '');
    const cells = [state, ap.system_name, ap.mac, ap.ip, ap.model, ap.firmware, ap.clients ?? '—', ago(ap.heard_seconds_ago) + ' ago'];
    cells.forEach((c, i) => { if (tr.cells[i].textContent !== String(c)) tr.cells[i].textContent = c; });
    if (!tr.cells[0].firstChild || tr.cells[0].firstChild.className !== 'dot') tr.cells[0].prepend(el('span', 'dot'));
    if (body.rows[i] !== tr) body.insertBefore(tr, body.rows[i] || null);
  });
  for (const tr of [...body.rows]) if (!seen.has(tr.dataset.mac)) tr.remove();
  if (selected && !seen.has(selected)) { $('#detail').hidden = true; selected = null; }
  if (selected) identity(selected);
  const stale = d.aps.filter((a) => a.stale).length;
  $('#summary').textContent = `${d.aps.length} access points` + (stale ? `, ${stale} stale` : '') +
    (d.last_poll_seconds_ago === null ? ', discovering…' : ` · discovery ${ago(d.last_poll_seconds_ago)} ago, every ${d.interval} s`);
}
async function run(mac, path, into) {
  into.replaceChildren(el('span', 'muted', 'reading…'));
  let r;
  try { r = await (await fetch(`/api/ap/${mac}/${path}`)).json(); } catch (e) { r = {error: String(e)}; }
  if (mac !== selected) return;
  if (!Array.isArray(r)) { into.replaceChildren(el('span', 'error', r.error)); return; }
  const ap = Object.assign({}, r[0]);
  if (ap.error) { into.replaceChildren(el('span', 'error', ap.error)); return; }
  for (const k of ['mac', 'result', 'ip', 'system_name', 'host_name']) delete ap[k];
  const keys = Object.keys(ap);
  into.replaceChildren(render(keys.length === 1 && Array.isArray(ap[keys[0]]) ? ap[keys[0]] : ap));
}
// Kept current while shown: an access point first heard by its hello is
// known by name only after the next discovery.
let shownIdentity = '';
async function identity(mac) {
  const r = await fetch(`/api/ap/${mac}`);
  const text = await r.text();
  if (mac !== selected || !r.ok || text === shownIdentity) return;
  shownIdentity = text;
  const id = JSON.parse(text);
  $('#d-title').textContent = `${id.system_name || ''} ${mac}`;
  delete id.mac;
  $('#d-identity').replaceChildren(render(id));
}
async function show(mac) {
  shownIdentity = '';
  selected = mac;
  for (const tr of $('#aps tbody').rows) tr.classList.toggle('sel', tr.dataset.mac === mac);
  const det = $('#detail');
  det.hidden = false;
  det.dataset.mac = mac;
  $('#d-title').textContent = mac;
  $('#d-output').replaceChildren();
  $('#d-identity').replaceChildren();
  identity(mac);
  run(mac, 'status', $('#d-status'));
  run(mac, 'ssid-list', $('#d-ssids'));
  run(mac, 'clients', $('#d-clients'));
}
async function commands() {
  const list = await (await fetch('/api/commands')).json();
  for (const c of list) {
    const b = el('button', '', c.name);
    b.title = c.summary;
    b.onclick = () => {
      const out = $('#d-output');
      out.replaceChildren(el('h3', '', c.name), el('div'));
      run(selected, c.path, out.lastChild);
    };
    $('#d-commands').append(b);
  }
}
commands();
refresh();
setInterval(refresh, 1000);
)";

// ---- the server ----------------------------------------------------------------------------

struct Listen {
    std::string host;  // as typed, without brackets
    uint16_t port = 8080;
};

Listen parse_listen(const std::string &v) {
    Listen l;
    size_t colon = v.rfind(':');
    if (colon == std::string::npos) usage("--listen: \"" + v + "\" is not ADDRESS:PORT (such as 127.0.0.1:8080)");
    l.host = v.substr(0, colon);
    if (l.host.size() > 1 && l.host.front() == '[' && l.host.back() == ']') l.host = l.host.substr(1, l.host.size() - 2);
    if (l.host.empty()) usage("--listen: \"" + v + "\" names no address");
    l.port = uint16_t(parse_number("--listen", v.substr(colon + 1), 0, 65535));
    return l;
}

bool loopback(const std::string &host) {
    auto ip = parse_ipv4(host);
    return host == "localhost" || host == "::1" || (ip && (*ip)[0] == 127);
}

int run_web(Ctx &c) {
    Opts o(c.g, *c.cmd, c.words);
    Listen l = parse_listen(o.text("--listen").value_or("127.0.0.1:8080"));
    if (!loopback(l.host) && !o.flag("--allow-remote"))
        usage("--listen " + l.host + ": not a loopback address; the page has no login, so anyone who can reach "
              "it sees the fleet. Add --allow-remote to mean it");
    Web w{double(o.number("--interval", 1, 86400).value_or(30)),
          double(o.number("--report-interval", 1, 3600).value_or(60))};
    Fleet polling(c);
    std::optional<Fleet> listening;
    if (!polling.ipv4()) listening.emplace(c);

    httplib::Server svr;
    const std::string bind = l.host == "localhost" ? "127.0.0.1" : l.host;
    const int port = l.port ? (svr.bind_to_port(bind, l.port) ? l.port : -1) : svr.bind_to_any_port(bind);
    if (port <= 0) fail(kExitNetwork, "cannot listen on " + l.host + ":" + std::to_string(l.port));
    const std::string p = std::to_string(port);
    const std::string shown = l.host.find(':') != std::string::npos ? "[" + l.host + "]" : l.host;
    // DNS rebinding: a page elsewhere whose name comes to point here still
    // sends its own name as Host.
    const std::set<std::string> hosts = {shown + ":" + p, "localhost:" + p, "127.0.0.1:" + p, "[::1]:" + p};
    svr.set_pre_routing_handler([&](const httplib::Request &req, httplib::Response &res) {
        std::string h = req.get_header_value("Host");
        std::transform(h.begin(), h.end(), h.begin(), [](unsigned char ch) { return std::tolower(ch); });
        if (hosts.count(h) || (port == 80 && hosts.count(h + ":80"))) return httplib::Server::HandlerResponse::Unhandled;
        res.status = 403;
        res.set_content("forbidden: unexpected Host header\n", "text/plain");
        return httplib::Server::HandlerResponse::Handled;
    });
    svr.set_default_headers({{"Content-Security-Policy", "default-src 'self'; frame-ancestors 'none'"},
                             {"X-Content-Type-Options", "nosniff"},
                             {"Referrer-Policy", "no-referrer"},
                             {"Cache-Control", "no-store"}});
    auto fixed = [&](const char *path, const char *body, const char *type) {
        svr.Get(path, [=](const httplib::Request &, httplib::Response &res) { res.set_content(body, type); });
    };
    fixed("/", kHtml, "text/html; charset=utf-8");
    svr.Get("/favicon.ico", [](const httplib::Request &, httplib::Response &res) { res.status = 204; });
    fixed("/app.css", kCss, "text/css; charset=utf-8");
    fixed("/app.js", kJs, "text/javascript; charset=utf-8");
    const char *json = "application/json";
    svr.Get("/api/aps", [&](const httplib::Request &, httplib::Response &res) { res.set_content(fleet_json(w), json); });
    svr.Get("/api/commands", [&](const httplib::Request &, httplib::Response &res) {
        res.set_content(commands_json(), json);
    });
    svr.Get(R"(/api/ap/([0-9a-fA-F:]{17})(?:/([a-z-]+))?)", [&](const httplib::Request &req, httplib::Response &res) {
        auto mac = parse_mac(req.matches[1].str());
        auto id = mac ? identity_json(w, format_mac(*mac)) : std::nullopt;
        const Command *cmd = req.matches[2].matched ? page_command(req.matches[2].str()) : nullptr;
        if (!id || (req.matches[2].matched && !cmd)) {
            res.status = 404;
            res.set_content(R"({"error":"no such access point or read command"})", json);
            return;
        }
        int http = 200;
        res.set_content(cmd ? run_read(c, *cmd, format_mac(*mac), http) : *id, json);
        res.status = http;
    });
    svr.Get("/metrics", [&](const httplib::Request &, httplib::Response &res) {
        res.set_content(metrics(w), "text/plain; version=0.0.4; charset=utf-8");
    });

    // SIGINT and SIGTERM end the server through one thread that waits for them.
    sigset_t sigs;
    sigemptyset(&sigs);
    sigaddset(&sigs, SIGINT);
    sigaddset(&sigs, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &sigs, nullptr);
    std::thread signals([&] {
        int sig = 0;
        sigwait(&sigs, &sig);
        svr.stop();
    });
    std::thread poll_thread(poller, std::ref(w), std::ref(polling));
    std::thread listen_thread;
    if (listening) listen_thread = std::thread(listener, std::ref(w), std::ref(*listening));
    std::printf("tavctl web: serving http://%s:%d/ (Ctrl-C stops)\n", shown.c_str(), port);
    std::fflush(stdout);
    svr.listen_after_bind();
    {
        std::lock_guard lock(w.mu);
        w.stop = true;
        w.cv.notify_all();
    }
    pthread_kill(signals.native_handle(), SIGTERM);  // when the server ended on its own
    signals.join();
    poll_thread.join();
    if (listen_thread.joinable()) listen_thread.join();
    return kExitOk;
}

constexpr OptSpec kWebOpts[] = {
    {"--listen", "ADDRESS:PORT", "where to serve (default 127.0.0.1:8080; port 0: a free one, printed at start)"},
    {"--interval", "SECONDS", "discover and read each access point's status and clients every SECONDS (default 30)"},
    {"--allow-remote", "", "allow a --listen address that is not loopback (the page has no login)"},
    {"--report-interval", "SECONDS", "the access points' report period (default 60): three missed make one stale"},
};

const Command kWeb[] = {
    {"web", Kind::Local, "serve a live page of the fleet and /metrics for Prometheus", "", kWebOpts,
     "Serves a read-only page: the access points that answer discovery (sent at start and every --interval), "
     "kept live by their hellos, reports and byes (raw Ethernet only); one that misses three reports is shown "
     "stale, one that says bye goes. A click shows its identity, status, SSIDs and clients, and buttons run "
     "the read commands (as JSON under /api/ap/MAC/COMMAND, words joined with \"-\"). Nothing on the page "
     "changes settings.\n\n"
     "/metrics gives, in Prometheus' text format, per access point (labels mac and name): tav_ap_up, "
     "tav_ap_stale, tav_ap_since_last_heard_seconds, tav_ap_discovery_reply_seconds, tav_ap_clients (label "
     "band), tav_ap_cpu_usage_ratio, tav_ap_memory_usage_ratio, tav_ap_transmit_bytes_total and "
     "tav_ap_receive_bytes_total (label interface), as the last poll found them.\n\n"
     "It listens on loopback unless --allow-remote, answers only requests whose Host is the --listen address "
     "or localhost, 127.0.0.1 or [::1] with its port (a defence against DNS rebinding), and sends no CORS "
     "headers. SIGINT or SIGTERM stops it.",
     run_web},
};

}  // namespace

std::span<const Command> web_commands() { return kWeb; }

}  // namespace tavctl
