// Checks that the default profile is something the daemon can live on:
// well-formed lines, consistent lists, lab-safe addresses.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <vector>

namespace {

struct Profile {
  std::map<std::string, std::string> values;
  std::vector<std::string> errors;  // "line N: what"
};

Profile load(const char* path) {
  Profile p;
  std::ifstream in(path);
  if (!in) {
    p.errors.push_back(std::string("cannot open ") + path);
    return p;
  }
  std::string line;
  for (int n = 1; std::getline(in, line); ++n) {
    auto err = [&](const std::string& what) {
      p.errors.push_back("line " + std::to_string(n) + ": " + what);
    };
    auto first = line.find_first_not_of(" \t");
    if (first == std::string::npos || line[first] == '#') continue;
    auto sp = line.find(' ');
    std::string key = line.substr(0, sp);
    std::string value = sp == std::string::npos ? "" : line.substr(sp + 1);
    if (key.empty() || key[0] != '/') err("key must start with '/': " + key);
    if (key.find('\t') != std::string::npos || key.find('\r') != std::string::npos)
      err("control character in key " + key);
    if (!value.empty() && (value.back() == ' ' || value.back() == '\r'))
      err("trailing blank in value of " + key);
    for (size_t i = 0; i < value.size(); ++i)
      if (value[i] == '\\' && (++i == value.size() || std::string("\\nrt").find(value[i]) == std::string::npos))
        err("bad escape in value of " + key);
    if (!p.values.emplace(key, value).second) err("duplicate key " + key);
  }
  return p;
}

const Profile& profile() {
  static const Profile p = load(TAVC_DEFAULT_PROFILE);
  return p;
}

std::string get(const std::string& key) {
  auto it = profile().values.find(key);
  return it == profile().values.end() ? "" : it->second;
}

bool has(const std::string& key) { return profile().values.count(key) != 0; }

std::string key(const char* fmt, int a, int b = 0, int c = 0) {
  char buf[256];
  std::snprintf(buf, sizeof buf, fmt, a, b, c);
  return buf;
}

TEST(DefaultProfile, LinesAreWellFormed) {
  for (const auto& e : profile().errors) ADD_FAILURE() << e;
  EXPECT_GT(profile().values.size(), 100u);
}

TEST(DefaultProfile, AddressesStayInsideTheLab) {
  static const std::regex quad(R"((\d+)\.(\d+)\.(\d+)\.(\d+))");
  for (const auto& [k, v] : profile().values) {
    for (std::sregex_iterator it(v.begin(), v.end(), quad), end; it != end; ++it) {
      unsigned a = 0;
      for (int i = 1; i <= 4; ++i) a = a << 8 | std::stoul((*it)[i]);
      const unsigned net = a & 0xFFFFFF00u;
      const bool doc = net == 0xC0000200u || net == 0xC6336400u || net == 0xCB007100u;
      const bool mask = a != 0 && ((~a + 1) & ~a) == 0;  // ones then zeros
      EXPECT_TRUE(doc || mask || a == 0 || a == 0xE0000001u) << k << " " << v;
    }
  }
}

TEST(DefaultProfile, MacAddressesAreWellFormed) {
  static const std::regex mac("([0-9a-f]{2}:){5}[0-9a-f]{2}");
  int count = 0;
  for (const auto& [k, v] : profile().values)
    if (k.size() > 4 && k.compare(k.size() - 4, 4, "/mac") == 0) {
      ++count;
      EXPECT_TRUE(std::regex_match(v, mac)) << k << " " << v;
    }
  EXPECT_GE(count, 10);
  EXPECT_EQ(get("/runtime/wan/inf:1/mac"), "02:7a:76:00:00:01");
}

// Lists are walked from element 1 up to the first missing one: a gap would
// hide the rest, a missing field would report an empty value.
TEST(DefaultProfile, ListsAreNumberedWithoutGaps) {
  struct List { std::regex element; std::vector<std::string> fields; };
  const std::vector<List> lists = {
      {std::regex(R"((/runtime/countrydomaintable):(\d+)/.*)"), {"seq", "index", "code"}},
      {std::regex(R"((/runtime/stats/wlan/inf:\d+(?:/mssid:\d+)?/client):(\d+)/.*)"), {"mac", "auth", "rssi"}},
      {std::regex(R"((/runtime/super_mesh/mesh_member_ap_list/index):(\d+)/.*)"), {"model", "devname", "mac", "status"}},
      {std::regex(R"((/runtime/super_mesh/mesh_unmanaged_ap_list/index):(\d+)/.*)"), {"model", "mac"}},
  };
  for (const auto& list : lists) {
    std::map<std::string, std::set<int>> numbers;
    std::smatch m;
    for (const auto& [k, v] : profile().values)
      if (std::regex_match(k, m, list.element)) numbers[m[1]].insert(std::stoi(m[2]));
    EXPECT_FALSE(numbers.empty());
    for (const auto& [prefix, set] : numbers) {
      EXPECT_EQ(*set.begin(), 1) << prefix;
      EXPECT_EQ(*set.rbegin(), static_cast<int>(set.size())) << prefix << " has a gap";
      for (int n : set)
        for (const auto& f : list.fields)
          EXPECT_FALSE(get(prefix + ":" + std::to_string(n) + "/" + f).empty()) << prefix << ":" << n << "/" << f;
    }
  }
}

TEST(DefaultProfile, CountryTableMatchesCurrentCountry) {
  static const std::set<std::string> locked = {"376", "392", "410", "840"};
  int current = 0, locked_entries = 0;
  for (int n = 1; has(key("/runtime/countrydomaintable:%d/seq", n)); ++n) {
    // The lookup follows seq, so seq n must lead back to entry n.
    EXPECT_EQ(get(key("/runtime/countrydomaintable:%d/seq", n)), std::to_string(n));
    const std::string code = get(key("/runtime/countrydomaintable:%d/code", n));
    locked_entries += locked.count(code) != 0;
    if (code == get("/runtime/layout/countrycode")) {
      current = n;
      EXPECT_EQ(get("/sys/country_index"), get(key("/runtime/countrydomaintable:%d/index", n)));
      EXPECT_EQ(get("/sys/country_name"), std::to_string(n));
    }
  }
  EXPECT_NE(current, 0) << "current country is not in the table";
  EXPECT_GT(locked_entries, 0);
}

TEST(DefaultProfile, SsidsAreCompleteAndStationsUseLiveSsids) {
  static const std::set<int> psk = {3, 5, 7, 13, 14}, radius = {2, 4, 6, 9, 17};
  static const std::regex ipv4(R"(\d+\.\d+\.\d+\.\d+)");
  for (int band = 1; band <= 2; ++band) {
    EXPECT_TRUE(has(key("/wlan/inf:%d/multi/state", band)));
    for (int idx = 0; idx <= 7; ++idx) {
      auto k = [&](const char* primary, const char* multi) {
        return idx == 0 ? key(primary, band) : key(multi, band, idx);
      };
      const std::string name = get(k("/wlan/inf:%d/ssid", "/wlan/inf:%d/multi/index:%d/ssid"));
      EXPECT_FALSE(name.empty()) << band << "/" << idx;
      EXPECT_LE(name.size(), 62u);
      const int auth = std::stoi(get(k("/wlan/inf:%d/authentication", "/wlan/inf:%d/multi/index:%d/auth")));
      const std::string pass = get(k("/wlan/inf:%d/wpa/wpapsk", "/wlan/inf:%d/multi/index:%d/passphrase"));
      const std::string server = get(k("/wlan/inf:%d/wpa/radiusserver", "/wlan/inf:%d/multi/index:%d/radius_server"));
      if (psk.count(auth)) {
        EXPECT_TRUE(pass.size() >= 8 && pass.size() <= 63) << band << "/" << idx;
      }
      if (radius.count(auth)) {
        EXPECT_TRUE(std::regex_match(server, ipv4)) << band << "/" << idx;
      }
      const bool live = idx == 0 || (get(key("/wlan/inf:%d/multi/state", band)) != "0" &&
                                     get(key("/wlan/inf:%d/multi/index:%d/state", band, idx)) != "0");
      const std::string station = idx == 0 ? key("/runtime/stats/wlan/inf:%d/client:1/mac", band)
                                           : key("/runtime/stats/wlan/inf:%d/mssid:%d/client:1/mac", band, idx);
      if (!live) {
        EXPECT_FALSE(has(station)) << station << " on a switched-off SSID";
      }
    }
  }
}

// Values the daemon reads into fixed buffers must fit them.
TEST(DefaultProfile, ValuesFitTheirBuffers) {
  const std::vector<std::pair<std::string, size_t>> limits = {
      {"/sys/hostname", 31}, {"/sys/systemName", 63}, {"/sys/user:1/name", 63},
      {"/sys/user:1/password", 31}, {"/sys/snmpd/rocomm", 29}, {"/sys/snmpd/rwcomm", 29},
      {"/sys/super_mesh/domain", 14}, {"/qm5_agent/ag_uuid", 31}, {"/time/timezone", 2},
      {"/runtime/time/date", 10}, {"/runtime/time/time", 8}};
  for (const auto& [k, max] : limits) {
    EXPECT_TRUE(has(k)) << k;
    EXPECT_LE(get(k).size(), max) << k;
  }
  EXPECT_TRUE(std::regex_match(get("/runtime/time/date"), std::regex(R"(\d\d/\d\d/\d{4})")));
  EXPECT_TRUE(std::regex_match(get("/runtime/time/time"), std::regex(R"(\d\d:\d\d:\d\d)")));
}

}  // namespace
