#!/usr/bin/python3
# SPDX-License-Identifier: ISC
# tavctl web against a lab instance of its own with three access points:
#   browser: in headless Chromium the list fills, a click shows an access
#            point's details, one that says bye disappears; a foreign Host is
#            refused;
#   metrics: /metrics parses as Prometheus text and agrees with tavctl --json.
# Needs root (exit 77 otherwise).
# Usage: web_test.py BUILD_DIR SOURCE_DIR LAB_INSTANCE browser|metrics
import json
import os
import pathlib
import subprocess
import sys
import tempfile
import time
import urllib.error
import urllib.request

build, src, instance, mode = pathlib.Path(sys.argv[1]).resolve(), pathlib.Path(sys.argv[2]), sys.argv[3], sys.argv[4]
if os.geteuid() != 0 or os.environ.get("TAVC_E2E_TARGET"):
    print("SKIP: needs root and the lab's own daemon")
    sys.exit(77)
TAVLAB = [str(src / "lab/tavlab"), "--instance", instance]
ENV = {k: v for k, v in os.environ.items() if not k.startswith("TAVCTL_")} | {"TAVCTL_CONFIG": "/dev/null"}
GLOBAL = [str(build / "tools/tavctl/tavctl"), "--iface", "eth0", "--netns", f"tavlab-{instance}-mgr",
          "--cipher", str(build / "sim/cipher/TAV_Auth.so")]
MACS = [f"02:7a:76:00:00:0{n}" for n in (1, 2, 3)]


def tavctl(*args):
    r = subprocess.run(GLOBAL + ["--json", *args], env=ENV, capture_output=True, text=True, timeout=60)
    assert r.returncode == 0, f"tavctl {args}: {r.returncode} {r.stderr}"
    return {ap["mac"]: ap for ap in json.loads(r.stdout)}


def until(what, pred, timeout=30):
    end = time.monotonic() + timeout
    while time.monotonic() < end:
        if v := pred():
            return v
        time.sleep(0.3)
    raise AssertionError(f"timed out: {what}")


def get(url, host=None):
    req = urllib.request.Request(url, headers={"Host": host} if host else {})
    try:
        with urllib.request.urlopen(req, timeout=30) as r:
            return r.status, dict(r.headers), r.read().decode()
    except urllib.error.HTTPError as e:
        return e.code, dict(e.headers), e.read().decode()


def browser(url):
    from selenium import webdriver
    from selenium.webdriver.common.by import By
    opts = webdriver.ChromeOptions()
    # A profile of its own, removed afterwards: left to itself the browser
    # leaves one in /tmp per run.
    profile = tempfile.TemporaryDirectory(prefix="tav-web-test.")
    for a in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--window-size=1400,900",
              "--user-data-dir=" + profile.name):
        opts.add_argument(a)
    d = webdriver.Chrome(service=__import__("selenium.webdriver.chrome.service", fromlist=["Service"]).Service("/usr/bin/chromedriver"), options=opts)
    try:
        d.get(url)
        # Read in one script: the page redraws rows while a test looks.
        rows = lambda: set(d.execute_script(
            "return [...document.querySelectorAll('#aps tbody tr')].map(r => r.dataset.mac)"))
        until("three access points listed", lambda: rows() == set(MACS))
        d.execute_script("document.querySelector(arguments[0]).click()", f'tr[data-mac="{MACS[0]}"]')
        text = lambda sel: d.execute_script("const e = document.querySelector(arguments[0]); return e ? e.innerText : ''", sel)
        ssid = tavctl("ssid", "list")[MACS[0]]["ssids"][0]["name"]
        client = tavctl("clients")[MACS[0]]["clients"][0]["mac"]
        shown = lambda: {s: text(s) for s in ("#d-title", "#d-identity", "#d-status", "#d-ssids", "#d-clients")}
        try:
            until("details shown", lambda: (t := shown()) and "AP-Lab-1" in t["#d-title"] and "192.0.2.11" in
                  t["#d-identity"] and "cpu percent" in t["#d-status"] and ssid in t["#d-ssids"]
                  and client in t["#d-clients"])
        except AssertionError:
            print(shown(), d.get_log("browser"))
            raise
        d.find_element(By.XPATH, "//div[@id='d-commands']/button[text()='time get']").click()
        until("a read command's result", lambda: "ntp" in text("#d-output").lower())
        subprocess.run(TAVLAB + ["exec", "ap3", "sh", "-c", "kill -TERM $(cat /var/run/tavc.pid)"], check=True)
        until("the access point that said bye gone", lambda: rows() == set(MACS[:2]), timeout=10)
    finally:
        d.quit()
        profile.cleanup()
    status, headers, _ = get(url + "api/aps", host="attacker.example:" + url.rsplit(":", 1)[1].strip("/"))
    assert status == 403, f"foreign Host: {status}"
    status, headers, _ = get(url + "api/aps")
    assert status == 200 and not any(h.lower().startswith("access-control") for h in headers), headers


def metrics(url):
    from prometheus_client.parser import text_string_to_metric_families

    def scrape():
        samples = {}
        for fam in text_string_to_metric_families(get(url + "metrics")[2]):
            for s in fam.samples:
                extra = tuple(v for k, v in sorted(s.labels.items()) if k not in ("mac", "name"))
                samples[(s.name, s.labels.get("mac"), *extra)] = (s.value, s.labels.get("name"))
        return samples
    m = until("every access point's figures", lambda: (s := scrape()) and all(
        s.get(("tav_ap_up", mac), (0,))[0] == 1 and ("tav_ap_clients", mac, "5GHz") in s for mac in MACS) and s)
    clients, status, names = tavctl("clients"), tavctl("status"), tavctl("discover")
    for mac in MACS:
        assert m[("tav_ap_up", mac)] == (1, names[mac]["system_name"]), m[("tav_ap_up", mac)]
        assert 0 < m[("tav_ap_discovery_reply_seconds", mac)][0] < 2
        assert 0 <= m[("tav_ap_since_last_heard_seconds", mac)][0] < 60
        for n, band in ((1, "2.4GHz"), (2, "5GHz")):
            want = sum(c["band"] == n for c in clients[mac]["clients"])
            assert m[("tav_ap_clients", mac, band)][0] == want, (mac, band, want)
        for side in ("wlan_2g", "wlan_5g", "ethernet"):
            for metric, key in (("transmit", "sent_bytes"), ("receive", "received_bytes")):
                got = m[(f"tav_ap_{metric}_bytes_total", mac, side)][0]
                assert 0 < got <= status[mac][side][key], (mac, side, key, got, status[mac][side][key])
        for key in ("cpu", "memory"):
            assert 0 <= m[(f"tav_ap_{key}_usage_ratio", mac)][0] <= 1
    r = subprocess.run(GLOBAL + ["web", "--listen", "192.0.2.1:0"], env=ENV, capture_output=True, timeout=30)
    assert r.returncode == 2, "a non-loopback --listen without --allow-remote"


subprocess.run(TAVLAB + ["down"], capture_output=True)  # what a killed run left
web = None
try:
    subprocess.run(TAVLAB + ["up", "-n", "3", "--build", str(build)], check=True, capture_output=True)
    web = subprocess.Popen(GLOBAL + ["web", "--listen", "127.0.0.1:0", "--interval", "3"], env=ENV,
                           stdout=subprocess.PIPE, text=True)
    url = web.stdout.readline().split()[3]  # "tavctl web: serving URL ..."
    {"browser": browser, "metrics": metrics}[mode](url)
    web.terminate()
    assert web.wait(10) == 0, "tavctl web on SIGTERM"
    print("ok")
finally:
    if web and web.poll() is None:
        web.kill()
    subprocess.run(TAVLAB + ["down"], capture_output=True)
