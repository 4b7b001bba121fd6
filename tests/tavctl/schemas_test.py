#!/usr/bin/python3
# SPDX-License-Identifier: ISC
# Every tavctl command's --json output against its JSON Schema
# (tools/tavctl/schemas), in a lab instance of its own with three access
# points. Needs root (exit 77 otherwise).
# Usage: schemas_test.py BUILD_DIR SOURCE_DIR LAB_INSTANCE (tests/tavctl/CMakeLists.txt)
import itertools
import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import time

build, src, instance = (pathlib.Path(sys.argv[1]).resolve(), pathlib.Path(sys.argv[2]).resolve(), sys.argv[3])
if os.geteuid() != 0:
    print("SKIP: the lab needs root")
    sys.exit(77)
if os.environ.get("TAVC_E2E_TARGET"):
    print("SKIP: the manager tool's output is the same whatever the access points run")
    sys.exit(77)
import jsonschema  # Debian's python3-jsonschema (scripts/deps.sh)

SCHEMAS = src / "tools/tavctl/schemas"
TAVLAB = str(src / "lab/tavlab")
TAVCTL = str(build / "tools/tavctl/tavctl")
TARGET, WAIT = str(build), "3"  # a loaded machine answers late
AP1, AP2, AP3 = (f"02:7a:76:00:00:0{n}" for n in (1, 2, 3))
NOT_JSON = {"completion", "web"}  # a bash script; a server (tests/web)
passed, failed = 0, 0
run_names = set()  # the schemas of the commands run


def check(ok, what):
    global passed, failed
    passed, failed = passed + bool(ok), failed + (not ok)
    if not ok:
        print("FAIL:", what, flush=True)
    return ok


def tavctl(args, timeout=180):
    env = {k: v for k, v in os.environ.items() if not k.startswith("TAVCTL_")}
    env.update(TAVCTL_CONFIG="/dev/null", TAVCTL_PASSWORD="admin")
    cmd = [TAVCTL, "--iface", "eth0", "--netns", f"tavlab-{instance}-mgr", "--cipher",
           str(build / "sim/cipher/TAV_Auth.so"), "--timeout", WAIT, "--user", "admin", "--json"] + args
    return subprocess.run(cmd, env=env, stdin=subprocess.DEVNULL, capture_output=True, text=True,
                          timeout=timeout, start_new_session=True)


def validator(name):
    path = SCHEMAS / f"{name}.schema.json"
    schema = json.loads(path.read_text())
    jsonschema.Draft202012Validator.check_schema(schema)
    # Relative $refs (common.schema.json) resolve beside the file.
    return jsonschema.Draft202012Validator(schema, resolver=jsonschema.RefResolver(path.as_uri(), schema))


def valid(what, name, doc):
    errors = [f"{'/'.join(map(str, e.absolute_path))}: {e.message}" for e in validator(name).iter_errors(doc)]
    return check(not errors, f"{what}: not {name}.schema.json: " + "; ".join(errors[:5]))


def schema_of(command):
    """The command's words (up to its first option or value) joined by "-"."""
    words = list(itertools.takewhile(lambda w: re.fullmatch("[a-z][a-z0-9-]*", w), command.split()))
    return "-".join(words[:2])


def run(command, targets=(), count=1):
    """Runs one command (--yes: no questions), checks its exit status, its
    array's length and its schema; returns the array."""
    args = ["--yes"] + [w for t in targets for w in ("--target", t)] + command.split()
    what, name = "tavctl " + " ".join(args), schema_of(command)
    run_names.add(name)
    r = tavctl(args)
    try:
        doc = json.loads(r.stdout)
    except ValueError:
        check(False, f"{what}: exit {r.returncode}, not JSON: {r.stdout[:200]!r} {r.stderr[:300]!r}")
        return []
    count = len(targets) or count  # 0: any number but none
    check(r.returncode == 0, f"{what}: exit {r.returncode}: {r.stderr.strip()[:300]}")
    check(isinstance(doc, list) and (len(doc) == count if count else doc), f"{what}: {count} objects expected")
    valid(what, name, doc)
    return doc if isinstance(doc, list) else []


# Every command that --help lists has a schema, and every schema a command.
helptext = subprocess.run([TAVCTL, "--help"], capture_output=True, text=True).stdout
listed = re.search(r"\nCommands:\n(.*?)\n\n", helptext, re.S).group(1)
commands = {m.group(1).replace(" ", "-") for m in re.finditer(r"^  ([a-z0-9-]+(?: [a-z0-9-]+)?)(?:  |$)", listed, re.M)}
schemas = {p.name[: -len(".schema.json")] for p in SCHEMAS.glob("*.schema.json")} - {"common", "watch-event"}
check(len(commands) > 30, f"--help lists {len(commands)} commands")
check(commands - NOT_JSON == schemas, f"commands without a schema: {sorted(commands - NOT_JSON - schemas)}, "
      f"schemas of no command: {sorted(schemas - commands)}")
for name in sorted(schemas | {"watch-event"}):
    validator(name)  # each schema is itself valid

subprocess.run([TAVLAB, "--instance", instance, "down"], capture_output=True)  # what a crashed run left
up = subprocess.run([TAVLAB, "--instance", instance, "up", "-n", "3", "--build", TARGET], capture_output=True,
                    text=True)
try:
    if not check(up.returncode == 0, f"lab up: {up.stdout[-500:]} {up.stderr[-500:]}"):
        sys.exit(1)
    for _ in range(60):  # until the three daemons answer
        if len(json.loads(tavctl(["discover"]).stdout or "[]")) == 3:
            break
        time.sleep(1)

    # Reads: the whole fleet, then one access point (discover knows no target).
    READS = ["discover", "discover --sort name", "raw 0xA1", "functions", "verify", "hello", "bye", "snmp get",
             "info", "time get", "status", "ssid list", "ssid list --show-secrets", "wireless get", "clients",
             "array get", "array members", "array members --unmanaged"]
    now = {}  # the settings before any change, for restoring them
    for command in READS:
        fleet = run(command, count=3)
        if not command.startswith("discover"):
            now[schema_of(command)] = run(command, [AP1])[0]
        elif fleet:
            ident = {a["mac"]: a for a in fleet}[AP1]
    run("tags", count=0)  # the tag table: not per access point
    run("tags 0xE5", count=0)
    # Announcements: one object a line.
    r = tavctl(["discover", "--watch", "--duration", "3"])
    lines = r.stdout.splitlines()
    check(r.returncode == 0 and len(lines) >= 3, f"discover --watch: exit {r.returncode}, {len(lines)} lines")
    for line in lines:
        valid("discover --watch", "watch-event", json.loads(line))

    # Changes: a harmless value, then the one before. The transfers, resets
    # and reboots reach only the lab's recording stubs; those that end with a
    # reboot come last, each on an access point no later command needs.
    pw = tempfile.NamedTemporaryFile("w", suffix=".pw")
    pw.write("admin\n")
    pw.flush()
    snmp, clock, radio, array = now["snmp-get"], now["time-get"], now["wireless-get"], now["array-get"]
    ssid7 = next(s for s in now["ssid-list"]["ssids"] if s["band"] == 1 and s["index"] == 7)
    tftp = "--server 192.0.2.1 --file schemas.cfg"
    WRITES = [
        ([AP1], "snmp set --ro-community schemas-test", "snmp set --ro-community " + snmp["ro_community"]),
        ([AP1], "device set --web-port 8080", f"device set --web-port {ident['web_port']}"),
        ([AP1], "device set --name schemas-test", "device set --name " + ident["system_name"]),
        ([AP1], "time set --ntp-server 192.0.2.1", "time set --ntp-server " + clock["ntp_server"]),
        ([AP1], "time set --dst off"),  # the device does not report daylight saving: nothing to restore
        ([AP1], "ssid set --index 7 --band 1 --name schemas-test", "ssid set --index 7 --band 1 --name " + ssid7["name"]),
        ([AP1, AP2], "wireless set --mode1 b/g", "wireless set --mode1 " + radio["bands"][0]["mode"]),
        ([AP1], "array set --name schemastest", "array set --name " + array["name"]),
        ([AP1], f"array remove {AP3}", f"array approve {AP3}"),
        ([AP1], f"array reboot {AP2}"),  # the lab's recording stub
        ([AP1], f"account set --new-user admin --new-password-file {pw.name}"),  # the same account
        ([AP1], f"ipv4 set --static {ident['ip']}/{ident['netmask']} --gateway {ident['gateway']} "
                f"--dns {ident['primary_dns']}"),  # the same addressing
        ([AP3], f"config backup --wait --limit 60 {tftp}", f"config restore --wait --limit 120 {tftp}"),
        ([AP2], f"firmware upgrade --wait --limit 120 {tftp}", "reboot --delay 1"),
        # The agent locks the access point; reset takes it back.
        ([AP1], "agent set --uuid schemas-test --server 192.0.2.1 --interval 30", "reset"),
        ([AP3], "factory-reset --delay 1"),
    ]
    for targets, *steps in WRITES:
        for command in steps:
            run(command, targets)
    check(run_names >= schemas, f"commands the table does not run: {sorted(schemas - run_names)}")
finally:
    subprocess.run([TAVLAB, "--instance", instance, "down"], capture_output=True)
print(f"{passed} passed, {failed} failed")
sys.exit(1 if failed else 0)
