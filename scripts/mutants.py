#!/usr/bin/python3
# SPDX-License-Identifier: ISC
"""Planted faults: does a test fail when the daemon's code is subtly wrong?

  draw   --seed S --count N [--out scripts/mutants.list] [DIRS...]
  sites  FILE[:LINE]     (every candidate there, in the list's format)
  run    [--list L] [--build-dir build/dev] [--timeout 300] [--test-timeout 60]
         [--only m001,m002] [--suites REGEX] [--out FILE] [--resume] [--no-baseline]
  report RESULT.tsv

`draw` finds candidate sites in the .cpp/.h files of DIRS and writes a fixed,
reviewable sample of them. `run` first checks that the unmutated tree passes
the same tests, then applies one mutant at a time to the working tree, builds,
runs the unit suites and then the other suites but `slow`, each stopping at
the first failure, always puts the file back and takes down this build's lab
instances (ctest skips fixture cleanups after --stop-on-failure). A mutant
whose tests outlast --timeout (at least twice the unmutated run) counts as
killed ("timeout"); one that does not compile is left out of the score.
Needs root for the lab suites.
"""

import argparse
import hashlib
import os
import random
import re
import shutil
import signal
import subprocess
import sys
import time
from collections import defaultdict

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
DEFAULT_DIRS = ["platform", "tavc", "lrgbin", "proto", "util"]
# Test doubles (the launch and frame recorder) are not the device's code.
SKIP_PARTS = {"record"}
SEP = " \u23ce "          # joins the lines of a two-line mutant in the list
NEAR = 10                 # how far `run` looks for a line that moved

KINDS = ["flip-eq", "boundary", "flip-rel", "flip-logic", "flip-bool", "off-by-one",
         "int-lit", "str-lit", "swap-rows"]

# ---------------------------------------------------------------- source scan


def mask_source(text):
    """Per character: 'c' code, 'm' comment, 's' string literal, 'q' char literal."""
    kinds = ["c"] * len(text)
    i, n = 0, len(text)
    while i < n:
        ch = text[i]
        if text.startswith("//", i):
            j = text.find("\n", i)
            j = n if j < 0 else j
            kinds[i:j] = ["m"] * (j - i)
            i = j
        elif text.startswith("/*", i):
            j = text.find("*/", i + 2)
            j = n if j < 0 else j + 2
            for k in range(i, j):
                if text[k] != "\n":
                    kinds[k] = "m"
            i = j
        elif ch in "\"'":
            j = i + 1
            while j < n and text[j] != ch and text[j] != "\n":
                j += 2 if text[j] == "\\" else 1
            j = min(j + 1, n)
            kinds[i:j] = ["s" if ch == '"' else "q"] * (j - i)
            i = j
        else:
            i += 1
    return "".join(kinds)


class Source:
    def __init__(self, path):
        self.path = path
        with open(os.path.join(ROOT, path), encoding="utf-8") as f:
            text = f.read()
        kinds = mask_source(text)
        self.lines = text.split("\n")
        self.kinds = []
        pos = 0
        for line in self.lines:
            self.kinds.append(kinds[pos:pos + len(line)])
            pos += len(line) + 1
        # code: the line with comments and literals blanked, columns kept
        self.code = ["".join(c if k == "c" else ("\"" if k == "s" else " ")
                             for c, k in zip(line, kk))
                     for line, kk in zip(self.lines, self.kinds)]
        self.skip = self._skipped_lines()

    def _skipped_lines(self):
        skip = set()
        cont = False
        for i, code in enumerate(self.code):
            if cont or code.lstrip().startswith("#"):
                skip.add(i)
                cont = self.lines[i].rstrip().endswith("\\")
        # static_assert(...) up to its closing parenthesis
        for i, code in enumerate(self.code):
            m = re.search(r"\bstatic_assert\s*\(", code)
            if not m:
                continue
            depth, j, col = 0, i, m.end() - 1
            while j < len(self.code):
                c = self.code[j]
                while col < len(c):
                    depth += {"(": 1, ")": -1}.get(c[col], 0)
                    if depth == 0:
                        break
                    col += 1
                skip.add(j)
                if depth == 0:
                    break
                j, col = j + 1, 0
        return skip


def site(path, i, kind, change, originals, replacements):
    return {"kind": kind, "file": path, "line": i + 1, "change": change,
            "orig": [s.strip() for s in originals], "repl": [s.strip() for s in replacements]}


def swap_at(line, start, end, new):
    return line[:start] + new + line[end:]


OPS = [  # (pattern on blanked code, kind, replacement)
    ("==", "flip-eq", "!="), ("!=", "flip-eq", "=="),
    ("<", "boundary", "<="), ("<=", "boundary", "<"),
    (">", "boundary", ">="), (">=", "boundary", ">"),
    ("<", "flip-rel", ">"), (">", "flip-rel", "<"),
    ("<=", "flip-rel", ">="), (">=", "flip-rel", "<="),
    ("&&", "flip-logic", "||"), ("||", "flip-logic", "&&"),
]
# Binary operators stand between spaces here (clang-format); templates,
# `->`, `<<`, `>>` and references never do.
OP_RE = re.compile(r"(?<= )(==|!=|<=|>=|<|>|&&|\|\|)(?= )")
BOOL_RE = re.compile(r"\breturn (true|false);")
OFF_RE = re.compile(r"(?<=[\w)\]]) ([+-]) 1(?![\w.'])")
INT_RE = re.compile(r"(?<![\w.'])(0[xX][0-9a-fA-F]+|[0-9]+)([uUlL]*)(?![\w.'])")
DECL_RE = re.compile(r"^\s*(?:(?:static|const|constexpr|inline|unsigned|signed|struct|volatile)\s+)*"
                     r"[A-Za-z_][\w:]*\s*[*&]?\s*[A-Za-z_]\w*\s*\[")
TABLE_RE = re.compile(r"\b(?:constexpr|const)\b[^;=]*\[[^\]]*\]\s*=\s*\{\s*$")
COMMAND_WORDS = {"submit", "nb_submit", "reboot", "date", "tftp", "rgdb", "sys", "kill", "killall",
                 "echo", "cat", "rm", "cp", "mv", "sh", "sleep", "ifconfig", "iwpriv", "brctl",
                 "route", "mkdir", "touch", "ln", "sed", "grep", "xmldb", "service"}
FORMAT_RE = re.compile(r"%[-+ #0-9.*]*[hlLzjt]*[a-zA-Z%]")


def key_like(body):
    """A string literal's body that names a database key or a command."""
    if body.startswith("/") and " " not in body and re.search(r"[a-z]", body):
        return True  # a key or a program's path
    word = re.match(r"[a-z_]+", body)
    if word and word.group() in COMMAND_WORDS and (len(body) == word.end() or body[word.end()] == " "):
        return True
    return bool(re.fullmatch(r"[A-Z][A-Z0-9_]{3,}", body))


def mutated_letter(body):
    """Index in body of the letter to change (middle one, not an escape or a
    printf conversion), or None."""
    banned = set()
    for m in FORMAT_RE.finditer(body):
        banned.update(range(m.start(), m.end()))
    for m in re.finditer(r"\\.", body):
        banned.update(range(m.start(), m.end()))
    letters = [i for i, c in enumerate(body) if c.isalpha() and c.isascii() and i not in banned]
    return letters[len(letters) // 2] if letters else None


def next_letter(c):
    base = ord("a") if c.islower() else ord("A")
    return chr(base + (ord(c) - base + 1) % 26)


def scan(path):
    src = Source(path)
    out = []
    for i, (line, code) in enumerate(zip(src.lines, src.code)):
        if (i in src.skip or not code.strip() or "\t" in line or SEP.strip() in line
                or "__attribute__" in code):
            continue
        for m in OP_RE.finditer(code):
            for op, kind, new in OPS:
                if m.group() == op:
                    out.append(site(path, i, kind, f"{op} -> {new} @{m.start() + 1}",
                                    [line], [swap_at(line, m.start(), m.end(), new)]))
        for m in BOOL_RE.finditer(code):
            new = "false" if m.group(1) == "true" else "true"
            out.append(site(path, i, "flip-bool", f"return {m.group(1)} -> {new}",
                            [line], [swap_at(line, m.start(1), m.end(1), new)]))
        for m in OFF_RE.finditer(code):
            new = "-" if m.group(1) == "+" else "+"
            out.append(site(path, i, "off-by-one", f"{m.group(1)} 1 -> {new} 1 @{m.start() + 2}",
                            [line], [swap_at(line, m.start(1), m.end(1), new)]))
        declaration = DECL_RE.match(code)
        for m in INT_RE.finditer(code):
            if declaration and code[:m.start()].rstrip().endswith("[") \
                    and code[m.end():].lstrip().startswith("]"):
                continue  # an array's size
            digits = m.group(1)
            value = int(digits, 0) if digits[:2].lower() == "0x" else int(digits)
            if digits[:1] == "0" and len(digits) > 1 and digits[1] not in "xX":
                continue  # octal: leave it
            new = value + 1 if value == 0 or (i + m.start()) % 2 else value - 1
            if digits[:2].lower() == "0x":
                hexdigits = digits[2:]
                text = f"{new:0{len(hexdigits)}{'X' if hexdigits.isupper() else 'x'}}"
                text = digits[:2] + text
            else:
                text = str(new)
            out.append(site(path, i, "int-lit", f"{digits} -> {text} @{m.start() + 1}",
                            [line], [swap_at(line, m.start(1), m.end(1), text)]))
        if "TAV_DEBUG" in code:
            continue  # trace messages are not keys or commands
        for m in re.finditer(r"s+", src.kinds[i]):
            if line[m.start()] != '"' or line[m.end() - 1] != '"' or m.end() - m.start() < 2:
                continue
            body = line[m.start() + 1:m.end() - 1]
            if not key_like(body):
                continue
            k = mutated_letter(body)
            if k is None:
                continue
            col = m.start() + 1 + k
            new = next_letter(line[col])
            out.append(site(path, i, "str-lit", f"\"{body}\": {line[col]} -> {new} @{col + 1}",
                            [line], [swap_at(line, col, col + 1, new)]))
    out += table_rows(src)
    return out


def table_rows(src):
    """Adjacent one-line `{...},` rows of a constant array, swapped."""
    out = []
    i = 0
    while i < len(src.code):
        if i in src.skip or not TABLE_RE.search(src.code[i]):
            i += 1
            continue
        rows, j = [], i + 1
        while j < len(src.code):
            c = src.code[j].strip()
            if c.startswith("}"):
                break
            is_row = (j not in src.skip and c.startswith("{") and c.endswith("},")
                      and c.count("{") == c.count("}"))
            rows.append(j if is_row else None)
            j += 1
        for a, b in zip(rows, rows[1:]):
            if a is None or b is None:
                continue
            la, lb = src.lines[a], src.lines[b]
            if la.strip() == lb.strip():
                continue
            ind_a = la[:len(la) - len(la.lstrip())]
            ind_b = lb[:len(lb) - len(lb.lstrip())]
            out.append(site(src.path, a, "swap-rows", f"rows {a + 1} <-> {b + 1}",
                            [la, lb], [ind_a + lb.strip(), ind_b + la.strip()]))
        i = j + 1
    return out


def source_files(dirs):
    files = []
    for d in dirs:
        if not os.path.isdir(os.path.join(ROOT, d)):
            print(f"note: {d}/ does not exist, skipped", file=sys.stderr)
            continue
        listed = subprocess.run(["git", "-C", ROOT, "ls-files", "--", d], check=True,
                                capture_output=True, text=True).stdout.split()
        files += [f for f in listed if f.endswith((".cpp", ".h"))
                  and not SKIP_PARTS.intersection(f.split("/")[:-1])]
    return sorted(set(files))


def quotas(counts, total):
    """About the same number of each kind; a kind with fewer candidates than
    its share gives the rest to the others."""
    q = {k: 0 for k in counts if counts[k]}
    left = min(total, sum(counts.values()))
    while left > 0:
        open_ = sorted(k for k in q if q[k] < counts[k])
        share = max(1, left // len(open_))
        for k in open_:
            g = min(share, counts[k] - q[k], left)
            q[k] += g
            left -= g
    return q


def list_line(mid, s):
    return "\t".join([mid, s["kind"], f"{s['file']}:{s['line']}", s["change"],
                      SEP.join(s["orig"]), SEP.join(s["repl"])]) + "\n"


def sites(args):
    """Every candidate of one file (or line), in the list's format: for trying
    one particular fault with `run --list`."""
    path, _, line = args.where.partition(":")
    for n, s in enumerate(c for c in scan(path) if not line or c["line"] == int(line)):
        sys.stdout.write(list_line(f"x{n + 1:03d}", s))


def draw(args):
    files = source_files(args.dirs or DEFAULT_DIRS)
    cands = []
    for f in files:
        cands += scan(f)
    key = lambda s: (s["file"], s["line"], s["kind"], s["change"])
    cands.sort(key=key)
    by_kind = defaultdict(list)
    for s in cands:
        by_kind[s["kind"]].append(s)
    q = quotas({k: len(by_kind[k]) for k in KINDS}, args.count)
    rng = random.Random(args.seed)
    chosen = []
    for kind in KINDS:
        if not q.get(kind):
            continue
        # round-robin over files in a random order, so that one kind's
        # mutants spread over many files
        per_file = defaultdict(list)
        for s in by_kind[kind]:
            per_file[s["file"]].append(s)
        order = rng.sample(sorted(per_file), len(per_file))
        pools = {f: rng.sample(per_file[f], len(per_file[f])) for f in order}
        taken = []
        while len(taken) < q[kind]:
            for f in order:
                if pools[f] and len(taken) < q[kind]:
                    taken.append(pools[f].pop())
        chosen += taken
    chosen.sort(key=key)
    out = os.path.abspath(args.out) if args.out else os.path.join(ROOT, "scripts/mutants.list")
    with open(out, "w", encoding="utf-8") as f:
        f.write(f"# mutants: seed {args.seed}, count {args.count}, dirs {' '.join(args.dirs or DEFAULT_DIRS)}\n")
        f.write(f"# {len(cands)} candidates in {len(files)} files; drawn per kind: "
                + ", ".join(f"{k} {q[k]}/{len(by_kind[k])}" for k in KINDS if k in q) + "\n")
        f.write("# id\tkind\tfile:line\tchange\toriginal\treplacement"
                f"  (two-line mutants join lines with '{SEP.strip()}')\n")
        for n, s in enumerate(chosen, 1):
            f.write(list_line(f"m{n:03d}", s))
    print(f"{len(chosen)} mutants from {len(cands)} candidates in {len(files)} files -> "
          f"{os.path.relpath(out)}")


# ---------------------------------------------------------------------- run


def read_list(path):
    mutants = []
    with open(path, encoding="utf-8") as f:
        for raw in f:
            if raw.startswith("#") or not raw.strip():
                continue
            mid, kind, where, change, orig, repl = raw.rstrip("\n").split("\t")
            file, line = where.rsplit(":", 1)
            mutants.append({"id": mid, "kind": kind, "file": file, "line": int(line),
                            "change": change, "orig": orig.split(SEP), "repl": repl.split(SEP)})
    return mutants


def locate(lines, m):
    """0-based index where the mutant's original lines start now, or None."""
    k = len(m["orig"])
    def fits(i):
        return 0 <= i <= len(lines) - k and all(lines[i + d].strip() == m["orig"][d] for d in range(k))
    at = m["line"] - 1
    if fits(at):
        return at
    for d in range(1, NEAR + 1):
        hits = [i for i in (at - d, at + d) if fits(i)]
        if len(hits) == 1:
            return hits[0]
        if hits:
            return None  # two equally near: ambiguous
    return None


def mutate(text, m):
    lines = text.split("\n")
    at = locate(lines, m)
    if at is None:
        return None, None
    for d, new in enumerate(m["repl"]):
        old = lines[at + d]
        lines[at + d] = old[:len(old) - len(old.lstrip())] + new
    return "\n".join(lines), at + 1


class Interrupted(Exception):
    pass


def on_term(signum, frame):
    raise Interrupted(f"signal {signum}")


def run_group(cmd, log, deadline, cwd=ROOT):
    """Run cmd in its own process group, output appended to log; kill the
    group at the deadline. Returns the exit status or None on timeout."""
    log.write(f"$ {' '.join(cmd)}\n")
    log.flush()
    p = subprocess.Popen(cmd, cwd=cwd, stdout=log, stderr=subprocess.STDOUT,
                         stdin=subprocess.DEVNULL, start_new_session=True)
    try:
        while True:
            try:
                return p.wait(timeout=max(0.1, min(1.0, deadline - time.monotonic())))
            except subprocess.TimeoutExpired:
                if time.monotonic() >= deadline:
                    return None
    finally:
        if p.poll() is None:
            for sig, wait in ((signal.SIGTERM, 10), (signal.SIGKILL, 10)):
                try:
                    os.killpg(p.pid, sig)
                except ProcessLookupError:
                    break
                try:
                    p.wait(timeout=wait)
                    break
                except subprocess.TimeoutExpired:
                    pass
        log.flush()


FAILED_RE = re.compile(r"^\s*\d+ - (\S+) \((.+)\)\s*$")


def first_failure(log_path, since):
    with open(log_path, "rb") as f:
        f.seek(since)
        text = f.read().decode("utf-8", "replace")
    part = text.split("The following tests FAILED:", 1)
    if len(part) == 2:
        for line in part[1].splitlines():
            m = FAILED_RE.match(line)
            if m:
                return f"{m.group(1)} ({m.group(2)})"
    m = re.search(r"Test\s+#\d+: (\S+) \.*\s*\*\*\*(\w+)", text)
    return f"{m.group(1)} ({m.group(2)})" if m else "ctest failed"


def lab_tags(build_dir):
    """The lab instance name prefixes of this build tree's tests."""
    cache = os.path.join(build_dir, "CMakeCache.txt")
    binary = os.path.abspath(build_dir)
    with open(cache, encoding="utf-8") as f:
        for line in f:
            if line.startswith("CMAKE_CACHEFILE_DIR:"):
                binary = line.split("=", 1)[1].strip()
    h = hashlib.md5(binary.encode()).hexdigest()
    return [f"tavlab-e{h[:5]}", f"tavlab-t{h[:8]}"]


def leaked_namespaces(tags):
    out = subprocess.run(["ip", "netns", "list"], capture_output=True, text=True).stdout
    return [l.split()[0] for l in out.splitlines() if l and l.split()[0].startswith(tuple(tags))]


def git_clean(path):
    return subprocess.run(["git", "-C", ROOT, "diff", "--quiet", "HEAD", "--", path]).returncode == 0


def ctest_cmd(args, *selection):
    cmd = ["ctest", "--test-dir", args.build_dir, "--stop-on-failure", "--no-tests=ignore", "--output-on-failure",
           "--timeout", str(args.test_timeout), *selection]
    if args.suites:
        cmd += ["-R", args.suites]
    return cmd


def phases(args):
    """Unit suites first (fast), then the rest but `slow`; (command, uses the lab)."""
    return [(ctest_cmd(args, "-j2", "-L", "unit", "-LE", "slow"), False),
            (ctest_cmd(args, f"-j{args.lab_jobs}", "-LE", "unit|slow"), True)]


def clean_labs(args, log, tags):
    run_group(["ctest", "--test-dir", args.build_dir, "-L", "lab", "-R", "_cleanup$"],
              log, time.monotonic() + 300)
    left = leaked_namespaces(tags)
    if left:
        print(f"warning: lab namespaces left: {' '.join(left)}", file=sys.stderr)


def baseline(args, log_dir, tags):
    """The unmutated tree must build and pass the same tests; a mutant's test
    time limit is at least twice theirs, so that slow is not taken for hung."""
    with open(os.path.join(log_dir, "baseline.log"), "w", encoding="utf-8") as log:
        if run_group(["cmake", "--build", args.build_dir, "-j2"], log,
                     time.monotonic() + args.build_timeout) != 0:
            sys.exit(f"the unmutated tree does not build; see {log.name}")
        t0 = time.monotonic()
        try:
            for cmd, _ in phases(args):
                log.flush()
                since = os.path.getsize(log.name)
                st = run_group(cmd, log, time.monotonic() + 4 * 3600)
                if st != 0:
                    sys.exit(f"the unmutated tree fails {first_failure(log.name, since)}; see {log.name}")
        finally:
            clean_labs(args, log, tags)
    took = time.monotonic() - t0
    limit = max(args.timeout, int(2 * took) + 1)
    print(f"baseline: tests pass in {took:.0f} s; test time limit per mutant {limit} s", flush=True)
    args.timeout = limit


def run_one(m, args, log_path, tags):
    """Apply, build, test, restore. Returns (status, detail, ran_lab)."""
    path = os.path.join(ROOT, m["file"])
    backup = os.path.join(args.build_dir, "mutants-backup", m["file"])
    with open(path, encoding="utf-8") as f:
        original = f.read()
    text, at = mutate(original, m)
    if text is None:
        return "stale", f"original text not found near line {m['line']}", False
    os.makedirs(os.path.dirname(backup), exist_ok=True)
    shutil.copyfile(path, backup)
    ran_lab = False
    try:
        with open(path, "w", encoding="utf-8") as f:
            f.write(text)
        moved = "" if at == m["line"] else f"; now at line {at}"
        with open(log_path, "a", encoding="utf-8") as log:
            log.write(f"=== {m['id']} {m['kind']} {m['file']}:{at} {m['change']}\n")
            st = run_group(["cmake", "--build", args.build_dir, "-j2"], log,
                           time.monotonic() + args.build_timeout)
            if st != 0:
                return "not-built", ("build timed out" if st is None else "build failed") + moved, False
            deadline = time.monotonic() + args.timeout
            for cmd, lab in phases(args):
                ran_lab |= lab
                log.flush()
                since = os.path.getsize(log_path)
                st = run_group(cmd, log, deadline)
                if st is None:
                    return "timeout", f"after {args.timeout} s" + moved, ran_lab
                if st != 0:
                    return "killed", first_failure(log_path, since) + moved, ran_lab
            return "survived", moved.lstrip("; "), ran_lab
    finally:
        # a fresh modification time: the build must recompile the original
        shutil.copyfile(backup, path)
        if not git_clean(m["file"]):
            raise SystemExit(f"FATAL: {m['file']} differs from HEAD after restoring; backup in {backup}")
        os.remove(backup)
        if ran_lab:
            with open(log_path, "a", encoding="utf-8") as log:
                clean_labs(args, log, tags)


RESULT_HEAD = "id\tkind\tsite\tstatus\tdetail\tseconds\tchange\n"


def score_line(rows):
    n = defaultdict(int)
    for r in rows:
        n[r["status"]] += 1
    killed = n["killed"] + n["timeout"]
    built = killed + n["survived"]
    pct = round(100 * killed / built) if built else 0
    s = (f"score: {killed} killed of {built} built ({pct}%), {n['survived']} survived, "
         f"{n['timeout']} timeouts, {n['not-built']} not built")
    return s + (f", {n['stale']} stale" if n["stale"] else "")


def read_results(path):
    rows = []
    if not os.path.exists(path):
        return rows
    with open(path, encoding="utf-8") as f:
        for raw in f:
            if raw.startswith("id\t") or not raw.strip():
                continue
            fields = raw.rstrip("\n").split("\t")
            rows.append(dict(zip(RESULT_HEAD.strip().split("\t"), fields)))
    return rows


def test_source(root, detail):
    """The test file that defines the gtest test a kill names, or None."""
    m = re.match(r"(?:tavc\.)?(\w+)\.(\w+) \(", detail)
    if not m:
        return None
    pattern = re.compile(r"TEST(?:_F)?\(\s*%s\s*,\s*%s\s*\)" % (m.group(1), m.group(2)))
    for top, _, names in os.walk(os.path.join(root, "tests")):
        for name in names:
            if name.endswith((".cpp", ".h")):
                path = os.path.join(top, name)
                with open(path, encoding="utf-8", errors="replace") as f:
                    if pattern.search(f.read()):
                        return os.path.relpath(path, root)
    return None


def same_test(other, detail):
    """True when the test a kill names, and every test header it includes,
    are the same files in `other` as here: it fails the same way again."""
    src = test_source(ROOT, detail)
    if not src:
        return False
    seen, todo = set(), [src]
    while todo:
        rel = todo.pop()
        if rel in seen:
            continue
        seen.add(rel)
        try:
            with open(os.path.join(ROOT, rel), "rb") as a, open(os.path.join(other, rel), "rb") as b:
                here = a.read()
                if here != b.read():
                    return False
        except OSError:
            return False
        todo += re.findall(r'#include "(tests/[^"]+)"', here.decode("utf-8", "replace"))
    return True


def reused(m, args):
    """A result that `--reuse` carries over without running: the mutated file
    is the same in both trees and the mutant did not build there, or it was
    killed there by a unit test that is the same here."""
    r = args.reuse_rows.get(m["id"])
    if not r:
        return None
    try:
        with open(os.path.join(ROOT, m["file"]), "rb") as a, \
                open(os.path.join(args.reuse_root, m["file"]), "rb") as b:
            if a.read() != b.read():
                return None
    except OSError:
        return None
    if r["status"] == "not-built":
        return r["status"], r["detail"]
    if r["status"] == "killed" and same_test(args.reuse_root, r["detail"]):
        return "killed", r["detail"].split(" (")[0] + " (the same test in the reused run)"
    return None


def run(args):
    # paths given are relative to the current directory, defaults to the tree
    args.list = os.path.abspath(args.list) if args.list else os.path.join(ROOT, "scripts/mutants.list")
    args.build_dir = os.path.abspath(args.build_dir) if args.build_dir else os.path.join(ROOT, "build/dev")
    args.out = os.path.abspath(args.out) if args.out else os.path.join(args.build_dir, "mutants.tsv")
    os.chdir(ROOT)
    signal.signal(signal.SIGINT, signal.default_int_handler)  # also when started in the background
    signal.signal(signal.SIGTERM, on_term)
    signal.signal(signal.SIGHUP, on_term)
    if not os.path.exists(os.path.join(args.build_dir, "CMakeCache.txt")):
        sys.exit(f"{args.build_dir} is not configured: cmake --preset dev")
    # A run killed hard (SIGKILL) leaves the mutated file and its backup.
    backup_dir = os.path.join(args.build_dir, "mutants-backup")
    for top, _, names in os.walk(backup_dir):
        for b in names:
            backup = os.path.join(top, b)
            target = os.path.join(ROOT, os.path.relpath(backup, backup_dir))
            with open(backup, "rb") as f1, open(target, "rb") as f2:
                if f1.read() != f2.read():
                    sys.exit(f"{target} may still hold a mutant; the original is {backup}:\n"
                             f"  cp {backup} {target}  (or git checkout it), then delete {backup}")
            os.remove(backup)
    mutants = read_list(args.list)
    if args.only:
        wanted = set(args.only.split(","))
        unknown = wanted - {m["id"] for m in mutants}
        if unknown:
            sys.exit(f"not in {args.list}: {', '.join(sorted(unknown))}")
        mutants = [m for m in mutants if m["id"] in wanted]
    dirty = sorted({m["file"] for m in mutants if not git_clean(m["file"])})
    if dirty:
        sys.exit("uncommitted changes in " + ", ".join(dirty) + ": commit or stash them first")
    out = args.out
    done = read_results(out) if args.resume else []
    done_ids = {r["id"] for r in done}
    if not args.resume or not os.path.exists(out):
        with open(out, "w", encoding="utf-8") as f:
            f.write(RESULT_HEAD)
    log_dir = os.path.join(args.build_dir, "mutants-logs")
    os.makedirs(log_dir, exist_ok=True)
    tags = lab_tags(args.build_dir)
    todo = [m for m in mutants if m["id"] not in done_ids]
    args.reuse_rows = {r["id"]: r for r in read_results(args.reuse)} if args.reuse else {}
    if args.reuse:
        args.reuse_root = os.path.abspath(args.reuse_root)
    if args.resume:
        print(f"resuming: {len(done_ids)} done, {len(todo)} to run")
    rows = list(done)
    interrupted = False
    if any(not reused(m, args) for m in todo) and not args.no_baseline:
        baseline(args, log_dir, tags)
    try:
        for n, m in enumerate(todo, 1):
            log_path = os.path.join(log_dir, m["id"] + ".log")
            open(log_path, "w").close()
            t0 = time.monotonic()
            carried = reused(m, args)
            status, detail, _ = (*carried, None) if carried else run_one(m, args, log_path, tags)
            secs = round(time.monotonic() - t0)
            row = {"id": m["id"], "kind": m["kind"], "site": f"{m['file']}:{m['line']}",
                   "status": status, "detail": detail, "seconds": str(secs), "change": m["change"]}
            rows.append(row)
            with open(out, "a", encoding="utf-8") as f:
                f.write("\t".join(row[k] for k in RESULT_HEAD.strip().split("\t")) + "\n")
            print(f"[{n}/{len(todo)}] {m['id']} {m['kind']:<10} {row['site']:<36} {status:<9} "
                  f"{secs:>4} s  {detail}", flush=True)
    except (KeyboardInterrupt, Interrupted) as e:
        print(f"\ninterrupted ({str(e) or 'Ctrl-C'}); the source is restored; --resume continues",
              file=sys.stderr)
        interrupted = True
    finally:
        if todo:
            print("rebuilding the unmutated tree", file=sys.stderr)
            for f in {m["file"] for m in todo}:
                os.utime(os.path.join(ROOT, f))  # newer than any mutant's objects
            with open(os.path.join(log_dir, "final-build.log"), "w") as log:
                if run_group(["cmake", "--build", args.build_dir, "-j2"], log,
                             time.monotonic() + args.build_timeout) != 0:
                    print(f"warning: the final build failed; see {log.name}", file=sys.stderr)
    left = leaked_namespaces(tags)
    if left:
        print(f"warning: lab namespaces of this build left: {' '.join(left)}", file=sys.stderr)
    print(score_line(rows))
    print(f"results: {out}")
    if interrupted:
        sys.exit(130)


def report(args):
    rows = read_results(args.result)
    print(score_line(rows))
    for r in rows:
        if r["status"] == "survived":
            print(f"  {r['id']}  {r['kind']:<10} {r['site']:<36} {r['change']}")


def main():
    p = argparse.ArgumentParser(description=__doc__.split("\n\n")[0],
                                formatter_class=argparse.RawDescriptionHelpFormatter)
    sub = p.add_subparsers(dest="cmd", required=True)
    d = sub.add_parser("draw", help="draw a list of mutants")
    d.add_argument("--seed", type=int, required=True)
    d.add_argument("--count", type=int, required=True)
    d.add_argument("--out", help="default: scripts/mutants.list")
    d.add_argument("dirs", nargs="*", help=f"default: {' '.join(DEFAULT_DIRS)}")
    r = sub.add_parser("run", help="apply, build and test each mutant")
    r.add_argument("--list", help="default: scripts/mutants.list")
    r.add_argument("--build-dir", help="default: build/dev")
    r.add_argument("--timeout", type=int, default=300,
                   help="seconds of tests per mutant, build excluded; raised to twice the baseline's")
    r.add_argument("--test-timeout", type=int, default=60,
                   help="ctest --timeout: tests without a TIMEOUT property of their own")
    r.add_argument("--build-timeout", type=int, default=1800)
    r.add_argument("--only", help="comma-separated ids")
    r.add_argument("--suites", help="ctest -R regex limiting the tests run")
    r.add_argument("--reuse", help="results of the same list on a tree whose suite differs: "
                   "a mutant it saw killed by a unit test that is unchanged here is not run again")
    r.add_argument("--reuse-root", help="that tree's top folder (with --reuse)")
    r.add_argument("--lab-jobs", type=int, default=1,
                   help="lab suites run at a time (each has lab instances of its own)")
    r.add_argument("--out", help="result TSV (default BUILD_DIR/mutants.tsv)")
    r.add_argument("--resume", action="store_true", help="skip ids already in --out")
    r.add_argument("--no-baseline", action="store_true",
                   help="skip the unmutated test run (and keep --timeout as given)")
    w = sub.add_parser("sites", help="every candidate at FILE or FILE:LINE, in list format")
    w.add_argument("where")
    s = sub.add_parser("report", help="score and surviving mutants of a result file")
    s.add_argument("result")
    args = p.parse_args()
    {"draw": draw, "sites": sites, "run": run, "report": report}[args.cmd](args)


if __name__ == "__main__":
    main()
